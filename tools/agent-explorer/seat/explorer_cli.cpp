#include <cstdlib>
#include <map>

#include "explorer.h"

namespace tdacli::explorer {

namespace {

bool ParseNumber(const std::string& text, double& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return end && *end == '\0';
}

bool ParseInt(const std::string& text, long& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  out = std::strtol(text.c_str(), &end, 10);
  return end && *end == '\0';
}

ParseResult Fail(std::string error) {
  ParseResult r;
  r.error = std::move(error);
  return r;
}

// Setting words of "set" and the keywords they send.
const std::map<std::string, std::string>& SetKeywords() {
  static const std::map<std::string, std::string> k = {
      {"ext", "|SETEXT|"},         {"server", "|SETSERVER|"},   {"notify", "|SETNOTIFY|"},
      {"listen", "|SETLISTEN|"},   {"pop4ext", "|SETPOP4EXT|"}, {"pop4win", "|SETPOP4WIN|"},
  };
  return k;
}

bool HasSemicolon(const std::string& v) { return v.find(';') != std::string::npos; }

}  // namespace

std::string UsageText() {
  return R"(Usage:
  agent-explorer [OPTIONS] HOST[:PORT] COMMAND [ARGUMENTS]
  agent-explorer [OPTIONS] control SERVICE CODE
  agent-explorer fleet COMMAND --hosts SPEC [OPTIONS]   (many agents at once:
                          agent-explorer fleet --help)
  agent-explorer serve --hosts SPEC [OPTIONS]   (the web console for a floor:
                          agent-explorer serve --help)

Talks to the command listener of an agent (port 5002 unless given): waits for the
greeting "|READY|", sends one command and prints the reply.

Commands:
  getinfo                 Read all settings (|GETINFO|); printed as a table, the NUL
                          characters that end the computer and user names shown as \0.
  set ext VALUE           Set the extension              (|SETEXT|VALUE;)
  set server VALUE        Set the TD Server address      (|SETSERVER|VALUE;)
  set notify VALUE        Set the notification method    (|SETNOTIFY|VALUE;)
  set listen VALUE        Set the listening ports w,x,y,z; the agent moves its
                          listener to the second port     (|SETLISTEN|VALUE;)
  set pop4ext VALUE       Set the pop-up flag for the extension   (|SETPOP4EXT|VALUE;)
  set pop4win VALUE       Set the pop-up flag for the user name   (|SETPOP4WIN|VALUE;)
                          An empty VALUE ("") asks for the "Failed;" answer.
  setall EXT [server=V] [notify=V] [listen=V] [pop4ext=V] [pop4win=V]
                          One SETALL request (|SETALL||EXT|EXT;|SERVER|V;...). The agent
                          stores the extension and the server only; the other values are
                          answered with what the agent keeps.
  login                   Ask the agent to log its user in (|LOGIN|) and print the login
                          result. The agent runs the whole login first: the reply is
                          awaited up to 180 seconds unless --timeout says otherwise.
  getver                  Component and version report (|GETVER|): every component's
                          version, date, time and size, service state and account, then
                          the main and the FTP settings.
  gettracefile            Have the media-transfer service TDACMT send the trace file
                          (|GETTRACEFILE|); the agent waits up to 11 seconds for its
                          answer and replies 1 or 2 (TDACMT's answer) or 0 (none).
  sendframes FILE [--pieces N] [--gap MS]
                          Hand over a send-frames job: the file's text is sent behind
                          |SENDFRAMES| (unless it already starts with it) between
                          [BEGIN_PROTOCOL] and [END_PROTOCOL]; the agent answers |OKAY|.
                          --pieces N sends it chopped into N receptions, MS
                          milliseconds apart (default 200), as a server's job may
                          arrive; the first piece holds the whole |SENDFRAMES| keyword.
  raw TEXT                Send TEXT exactly as given.
  control SERVICE CODE    Send the user-defined service control code CODE to the service
                          SERVICE (for example TDACLI) and say what happened ("code 128
                          sent to TDACLI", or why not). CODE must lie in 128-255, the
                          range of user-defined codes; others are refused here.
                          Windows: through the service manager; elsewhere through the
                          service's endpoint SERVICE.svc in --app-dir.

Options:
  --raw                   Print the reply exactly as received, nothing added.
  --timeout SEC           Seconds to wait for the greeting and for the reply
                          (default 15; login: 180).
  --app-dir DIR           control: the agent's application folder (default: the current
                          folder).
  -h, --help              This text.

Every command is built into the agent and answers; a silent agent is reported after
the time-out. Exit codes: 0 reply received (or control code delivered), 1 no greeting
or no reply within the time-out (or control code not delivered), 2 command line not
understood, 3 no connection.
)";
}

std::string BuildSetAll(const SetAllValues& v) {
  std::string s = "|SETALL||EXT|" + v.ext + ";";
  if (v.has_server) s += "|SERVER|" + v.server + ";";
  if (v.has_notify) s += "|NOTIFICATIONMETHOD|" + v.notify + ";";
  if (v.has_listen) s += "|LISTENINGPORTS|" + v.listen + ";";
  if (v.has_pop4ext) s += "|POP4EXT|" + v.pop4ext + ";";
  if (v.has_pop4win) s += "|POP4WIN|" + v.pop4win + ";";
  return s;
}

std::vector<std::string> ChopSendFrames(std::string_view framed, int pieces) {
  constexpr std::string_view kKeyword = "|SENDFRAMES|";
  const size_t k = framed.find(kKeyword);
  if (pieces < 1 || k == std::string_view::npos) return {};
  if (pieces == 1) return {std::string(framed)};
  const size_t first = k + kKeyword.size();
  const size_t rest = framed.size() - first;
  const size_t later = static_cast<size_t>(pieces - 1);
  if (rest < later) return {};
  std::vector<std::string> out{std::string(framed.substr(0, first))};
  size_t at = first;
  for (size_t i = 1; i <= later; ++i) {
    const size_t end = first + rest * i / later;
    out.emplace_back(framed.substr(at, end - at));
    at = end;
  }
  return out;
}

std::string BuildSendFrames(std::string_view content) {
  std::string body(content);
  while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
  if (body.find("[BEGIN_PROTOCOL]") != std::string::npos) return body;
  if (body.rfind("|SENDFRAMES|", 0) != 0) body = "|SENDFRAMES|" + body;
  return "[BEGIN_PROTOCOL]" + body + "[END_PROTOCOL]";
}

ParseResult ParseArguments(const std::vector<std::string>& args) {
  Options o;
  std::vector<std::string> pos;
  bool help = false, timeout_given = false, pieces_given = false, gap_given = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value_of = [&](const std::string& name, std::string& out) -> bool {
      if (a == name) {
        if (i + 1 >= args.size()) return false;
        out = args[++i];
        return true;
      }
      out = a.substr(name.size() + 1);  // "--name=value"
      return true;
    };
    if (a == "--") {
      pos.insert(pos.end(), args.begin() + static_cast<long>(i) + 1, args.end());
      break;
    }
    if (a == "-h" || a == "--help") {
      help = true;
    } else if (a == "--raw") {
      o.raw = true;
    } else if (a == "--timeout" || a.rfind("--timeout=", 0) == 0) {
      std::string v;
      double secs = 0;
      if (!value_of("--timeout", v)) return Fail("--timeout needs a number of seconds");
      if (!ParseNumber(v, secs) || !(secs > 0) || secs > 86400) return Fail("--timeout: not a number of seconds: " + v);
      o.timeout_seconds = secs;
      timeout_given = true;
    } else if (a == "--pieces" || a.rfind("--pieces=", 0) == 0 || a == "--gap" || a.rfind("--gap=", 0) == 0) {
      const bool is_pieces = a.rfind("--pieces", 0) == 0;
      const std::string name = is_pieces ? "--pieces" : "--gap";
      std::string v;
      long n = 0;
      if (!value_of(name, v)) return Fail(name + " needs a number");
      if (is_pieces) {
        if (!ParseInt(v, n) || n < 1 || n > 10000) return Fail("--pieces: a number of pieces 1-10000, not " + v);
        o.pieces = static_cast<int>(n);
        pieces_given = true;
      } else {
        if (!ParseInt(v, n) || n < 0 || n > 60000) return Fail("--gap: milliseconds 0-60000, not " + v);
        o.gap_ms = static_cast<int>(n);
        gap_given = true;
      }
    } else if (a == "--app-dir" || a.rfind("--app-dir=", 0) == 0) {
      if (!value_of("--app-dir", o.app_dir)) return Fail("--app-dir needs a folder");
      if (o.app_dir.empty()) return Fail("--app-dir needs a folder");
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return Fail("unknown option " + a);
    } else {
      pos.push_back(a);
    }
  }
  if (help) {
    o.action = Action::kHelp;
    return {true, o, ""};
  }
  if (pos.empty()) return Fail("no host and command given");

  if ((pieces_given || gap_given) && !(pos.size() >= 2 && pos[1] == "sendframes"))
    return Fail("--pieces and --gap go with sendframes only");
  if (pos[0] == "control") {
    if (pos.size() != 3) return Fail("control needs SERVICE and CODE");
    long code = 0;
    if (pos[1].empty()) return Fail("control: empty service name");
    if (!ParseInt(pos[2], code) || code < 128 || code > 255)
      return Fail("control: CODE must be a user-defined service control code, 128-255 (not " + pos[2] + ")");
    o.action = Action::kControl;
    o.service = pos[1];
    o.code = static_cast<int>(code);
    o.name = "control";
    return {true, o, ""};
  }

  // HOST[:PORT]
  const std::string& target = pos[0];
  const size_t colon = target.rfind(':');
  o.host = target.substr(0, colon);
  if (colon != std::string::npos) {
    long port = 0;
    if (!ParseInt(target.substr(colon + 1), port) || port < 1 || port > 65535)
      return Fail("not a port number in " + target);
    o.port = static_cast<uint16_t>(port);
  }
  if (o.host.empty()) return Fail("no host given");
  if (pos.size() < 2) return Fail("no command given");

  const std::string& cmd = pos[1];
  const size_t rest = pos.size() - 2;
  o.action = Action::kCommand;
  o.name = cmd;
  auto no_args = [&](const char* keyword) -> ParseResult {
    if (rest != 0) return Fail(cmd + " takes no arguments");
    o.command = keyword;
    return {true, o, ""};
  };
  if (cmd == "getinfo") return no_args("|GETINFO|");
  if (cmd == "login") {
    if (!timeout_given) o.timeout_seconds = kLoginTimeoutSeconds;
    return no_args("|LOGIN|");
  }
  if (cmd == "getver") return no_args("|GETVER|");
  if (cmd == "gettracefile") return no_args("|GETTRACEFILE|");
  if (cmd == "raw") {
    if (rest != 1) return Fail("raw needs exactly one TEXT argument");
    o.command = pos[2];
    if (o.command.empty()) return Fail("raw: empty text");
    return {true, o, ""};
  }
  if (cmd == "sendframes") {
    if (rest != 1) return Fail("sendframes needs a FILE");
    o.sendframes_file = pos[2];
    return {true, o, ""};
  }
  if (cmd == "set") {
    if (rest != 2) return Fail("set needs a setting and a value");
    auto it = SetKeywords().find(pos[2]);
    if (it == SetKeywords().end()) return Fail("set: unknown setting " + pos[2]);
    if (HasSemicolon(pos[3])) return Fail("set: a value cannot contain ';'");
    o.name = "set " + pos[2];
    o.command = it->second + pos[3] + ";";
    return {true, o, ""};
  }
  if (cmd == "setall") {
    if (rest < 1) return Fail("setall needs the extension");
    SetAllValues v;
    v.ext = pos[2];
    if (HasSemicolon(v.ext)) return Fail("setall: a value cannot contain ';'");
    for (size_t i = 3; i < pos.size(); ++i) {
      const size_t eq = pos[i].find('=');
      if (eq == std::string::npos) return Fail("setall: expected NAME=VALUE, got " + pos[i]);
      const std::string name = pos[i].substr(0, eq), value = pos[i].substr(eq + 1);
      if (HasSemicolon(value)) return Fail("setall: a value cannot contain ';'");
      if (name == "server") v.has_server = true, v.server = value;
      else if (name == "notify") v.has_notify = true, v.notify = value;
      else if (name == "listen") v.has_listen = true, v.listen = value;
      else if (name == "pop4ext") v.has_pop4ext = true, v.pop4ext = value;
      else if (name == "pop4win") v.has_pop4win = true, v.pop4win = value;
      else return Fail("setall: unknown setting " + name);
    }
    o.command = BuildSetAll(v);
    return {true, o, ""};
  }
  return Fail("unknown command " + cmd);
}

}  // namespace tdacli::explorer
