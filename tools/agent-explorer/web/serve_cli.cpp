// `agent-explorer serve ...`: the command line, the access token, and the start of the console.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "platform/terminal.h"
#include "shared/command_line.h"
#include "shared/exchange.h"
#include "web/console.h"
#include "web/requests.h"
#include "web/serve.h"

#ifdef TDACLI_SERVE_TLS
#include <openssl/rand.h>
#endif

namespace tdacli::explorer::web {

namespace {

ServeParsed Fail(std::string error) {
  ServeParsed p;
  p.error = std::move(error);
  return p;
}

}  // namespace

std::string ServeUsageText() {
  return R"(Usage:
  agent-explorer serve --hosts SPEC [OPTIONS]

Serves the web console for the hosts of SPEC (host lists as for fleet): the
floor at a glance (GETINFO and GETVER of every host, counts per state, drift
from the floor's most common values), a seat's settings and component report,
log in and trace-file requests, guarded changes (preview, then apply) recorded
in an audit log, and CSV and JSON exports. The page uses the JSON API under
/api/ (see the README).

The console scans at start, when the page's Refresh asks, and every
--refresh-every seconds when given. Each scan briefly takes each agent's one
console connection (a console connected to an agent at that moment is taken
over).

Options:
  --hosts SPEC           the hosts, as for fleet (may be given more than once)
  --listen ADDR:PORT     where to listen (default 127.0.0.1:8080; port 0: any
                         free port); an address beyond loopback needs
                         --tls-cert and --tls-key
  --parallel N           connections at once, 1-1024 (default 64)
  --timeout SEC          per host, for the greeting and for each reply (default 5)
  --refresh-every SEC    scan again every SEC seconds, at least 300
  --audit-log FILE       where changes are recorded, one JSON object a line
                         (default agent-explorer-audit.jsonl in the working
                         folder)
  --token-file FILE      the access token: the file's first line, 32-256
                         characters of A-Z a-z 0-9 . _ ~ - (default: a random
                         token made at start)
  --tls-cert FILE        HTTPS: the certificate chain (PEM)
  --tls-key FILE         HTTPS: its private key (PEM)
  -h, --help             this text

The start-up line on standard output is the address to open, with the access
token; the page trades it for a session cookie. API clients send
"Authorization: Bearer TOKEN". The console runs until it is stopped (Ctrl+C).
Exit codes: 2 command line not understood or listen address refused, 1 the
console could not start.
)";
}

bool IsLoopback(const std::string& host) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  char tail = 0;
  return std::sscanf(host.c_str(), "%u.%u.%u.%u%c", &a, &b, &c, &d, &tail) == 4 && a == 127 && b < 256 && c < 256 &&
         d < 256;
}

std::string ListenProblem(const ServeOptions& o) {
  const std::string where = o.listen_host + ":" + std::to_string(o.listen_port);
#ifdef TDACLI_SERVE_TLS
  if (!IsLoopback(o.listen_host) && (o.tls_cert.empty() || o.tls_key.empty()))
    return "--listen " + where +
           " is beyond loopback: the console can change every seat's settings, so there it serves HTTPS only "
           "(give --tls-cert and --tls-key)";
  if (o.tls_cert.empty() != o.tls_key.empty()) return "--tls-cert and --tls-key go together";
#else
  if (!o.tls_cert.empty() || !o.tls_key.empty())
    return "this build serves no HTTPS: --tls-cert and --tls-key are for the Linux console";
  if (!IsLoopback(o.listen_host))
    return "--listen " + where + " is beyond loopback: this build serves plain HTTP, on loopback (127.0.0.0/8) only";
#endif
  return "";
}

std::string TokenFromFile(const std::string& content) {
  std::string line = content.substr(0, content.find('\n'));
  while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.pop_back();
  size_t start = 0;
  while (start < line.size() && (line[start] == ' ' || line[start] == '\t')) ++start;
  line.erase(0, start);
  return IsTokenText(line) ? line : std::string();
}

std::string NewToken() {
  unsigned char bytes[32];
#ifdef TDACLI_SERVE_TLS
  if (RAND_bytes(bytes, sizeof bytes) != 1) std::abort();
#else
  // mingw's random_device draws from the system's cryptographic generator (rand_s).
  std::random_device source;
  for (size_t i = 0; i < sizeof bytes; i += 4) {
    const unsigned v = source();
    for (size_t k = 0; k < 4; ++k) bytes[i + k] = static_cast<unsigned char>(v >> (8 * k));
  }
#endif
  static const char kHex[] = "0123456789abcdef";
  std::string token;
  for (unsigned char b : bytes) {
    token += kHex[b >> 4];
    token += kHex[b & 15];
  }
  return token;
}

ServeParsed ParseServeArguments(const std::vector<std::string>& args, const fleet::FileReader& read_file) {
  ServeParsed p;
  ServeOptions& o = p.options;
  std::string list;
  bool have_hosts = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    std::string value;
    auto option = [&](const std::string& name) { return OptionValue(args, i, name, value); };
    auto number = [&](long low, long high, long& out) {
      char* end = nullptr;
      out = std::strtol(value.c_str(), &end, 10);
      return !value.empty() && *end == '\0' && out >= low && out <= high;
    };
    int r = 0;
    long n = 0;
    if (a == "-h" || a == "--help") {
      p.help = true;
    } else if ((r = option("--hosts")) != 0) {
      if (r < 0) return Fail("--hosts needs a SPEC");
      list += (list.empty() ? "" : ",") + value;
      have_hosts = true;
    } else if ((r = option("--listen")) != 0) {
      const size_t colon = value.rfind(':');
      if (r < 0 || colon == std::string::npos || colon == 0) return Fail("--listen: ADDR:PORT with an IPv4 address");
      const std::string host = value.substr(0, colon);
      unsigned a1, a2, a3, a4;
      char tail;
      if (std::sscanf(host.c_str(), "%u.%u.%u.%u%c", &a1, &a2, &a3, &a4, &tail) != 4 || a1 > 255 || a2 > 255 ||
          a3 > 255 || a4 > 255 || host.find_first_not_of("0123456789.") != std::string::npos)
        return Fail("--listen: ADDR:PORT with an IPv4 address, not " + fleet::EscapeControls(value));
      value = value.substr(colon + 1);
      if (!number(0, 65535, n) || (value.size() > 1 && value[0] == '0'))
        return Fail("--listen: a port from 0 to 65535, not " + fleet::EscapeControls(value));
      o.listen_host = host;
      o.listen_port = static_cast<uint16_t>(n);
    } else if ((r = option("--parallel")) != 0) {
      if (r < 0 || !number(1, fleet::kMaxParallel, n))
        return Fail("--parallel: a number of connections from 1 to " + std::to_string(fleet::kMaxParallel));
      o.parallel = static_cast<int>(n);
    } else if ((r = option("--timeout")) != 0) {
      char* end = nullptr;
      const double secs = r > 0 ? std::strtod(value.c_str(), &end) : 0;
      if (r < 0 || value.empty() || *end != '\0' || !(secs > 0) || secs > 3600)
        return Fail("--timeout: a number of seconds up to 3600");
      o.timeout_seconds = secs;
    } else if ((r = option("--refresh-every")) != 0) {
      if (r < 0 || !number(kMinRefreshSeconds, 7 * 24 * 3600, n))
        return Fail("--refresh-every: a number of seconds, at least " + std::to_string(kMinRefreshSeconds) +
                    " (a scan takes every agent's console connection for a moment)");
      o.refresh_every_seconds = static_cast<int>(n);
    } else if ((r = option("--audit-log")) != 0) {
      if (r < 0 || value.empty()) return Fail("--audit-log needs a FILE");
      o.audit_log = value;
    } else if ((r = option("--token-file")) != 0) {
      if (r < 0 || value.empty()) return Fail("--token-file needs a FILE");
      o.token_file = value;
    } else if ((r = option("--tls-cert")) != 0) {
      if (r < 0 || value.empty()) return Fail("--tls-cert needs a FILE");
      o.tls_cert = value;
    } else if ((r = option("--tls-key")) != 0) {
      if (r < 0 || value.empty()) return Fail("--tls-key needs a FILE");
      o.tls_key = value;
    } else if (a.size() > 1 && a[0] == '-') {
      return Fail("unknown option " + fleet::EscapeControls(a));
    } else {
      return Fail("serve takes no arguments but options, not " + fleet::EscapeControls(a));
    }
  }
  if (p.help) {
    p.ok = true;
    return p;
  }
  if (!have_hosts) return Fail("serve needs --hosts SPEC");
  fleet::HostSpec hosts = fleet::ParseHostSpec(list, read_file);
  if (!hosts.ok) return Fail(hosts.error);
  o.hosts = std::move(hosts.hosts);
  p.ok = true;
  return p;
}

int ServeMain(const std::vector<std::string>& args, const std::function<void(const std::string&)>& say,
              const std::function<void(const std::string&)>& err) {
  ServeParsed p = ParseServeArguments(args, [](const std::string& path) {
    return ReadBoundedFile(path, fleet::kMaxHostFileBytes);
  });
  if (!p.ok) {
    err("agent-explorer serve: " + p.error + "\n(agent-explorer serve --help shows the usage)\n");
    return kExitUsage;
  }
  if (p.help) {
    say(ServeUsageText());
    return kExitOk;
  }
  const ServeOptions& o = p.options;
  if (std::string problem = ListenProblem(o); !problem.empty()) {
    err("agent-explorer serve: " + problem + "\n");
    return kExitUsage;
  }
  std::string token;
  if (!o.token_file.empty()) {
    auto content = ReadBoundedFile(o.token_file, 4096);
    if (!content) {
      err("agent-explorer serve: cannot read the token file " + fleet::EscapeControls(o.token_file) + "\n");
      return kExitNoReply;
    }
    token = TokenFromFile(*content);
    if (token.empty()) {
      err("agent-explorer serve: the token file's first line is no token (32-256 characters of A-Z a-z 0-9 . _ ~ -)\n");
      return kExitNoReply;
    }
  } else {
    token = NewToken();
  }
  AuditLog audit(o.audit_log);
  std::string error;
  if (!audit.Writable(error)) {
    err("agent-explorer serve: cannot write the audit log " + fleet::EscapeControls(o.audit_log) + " (" + error + ")\n");
    return kExitNoReply;
  }
#ifdef SIGPIPE
  // A browser that goes away while its answer is written must not end the console.
  std::signal(SIGPIPE, SIG_IGN);
#endif
#ifdef __GLIBC__
  // Two malloc arenas instead of one per worker thread: what one thread frees, another reuses, so the
  // console's memory follows its data rather than the number of threads that touched it.
  mallopt(M_ARENA_MAX, 2);
#endif
  platform::AllowOpenSockets(static_cast<size_t>(o.parallel) + kWorkers + kQueuedConnections + 64);

  Engine::Settings settings;
  settings.hosts = o.hosts;
  settings.parallel = o.parallel;
  settings.timeout_seconds = o.timeout_seconds;
  settings.refresh_every_seconds = o.refresh_every_seconds;
  Engine engine(settings);
  engine.RequestScan();

  ConsoleConfig config;
  config.listen_host = o.listen_host;
  config.port = o.listen_port;
  config.token = token;
  config.tls_cert = o.tls_cert;
  config.tls_key = o.tls_key;
  const size_t count = o.hosts.size();
  const bool ran = RunConsole(
      engine, audit, config,
      [&](const std::string& url) {
        say("agent-explorer serve: " + url + " (" + std::to_string(count) + (count == 1 ? " host" : " hosts") +
            ", audit log " + fleet::EscapeControls(o.audit_log) + ")\n");
      },
      error);
  if (!ran) {
    err("agent-explorer serve: " + error + "\n");
    return kExitNoReply;
  }
  return kExitOk;
}

}  // namespace tdacli::explorer::web
