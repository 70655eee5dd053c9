// `agent-explorer fleet ...`: the command line, and the run from it to the output and the exit code.
#include <cstdio>
#include <cstdlib>

#include "seat/explorer.h"
#include "shared/command_line.h"
#include "fleet/fleet.h"
#include "platform/clock.h"
#include "platform/terminal.h"

namespace tdacli::explorer::fleet {

namespace {

Parsed Fail(std::string error) {
  Parsed p;
  p.error = std::move(error);
  return p;
}

bool HasControl(std::string_view v) {
  for (char c : v)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return true;
  return false;
}

std::string SettingWords() {
  std::string s;
  for (const SettingName& n : SettingNames()) s += (s.empty() ? "" : ", ") + std::string(n.word);
  return s;
}

std::string TimeText(const platform::LocalTime& t) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d", t.year, t.month, t.day, t.hour, t.minute, t.second);
  return buf;
}

}  // namespace

std::string SetValueProblem(std::string_view name, std::string_view value) {
  if (!FindSetting(name)) return "set: unknown setting " + EscapeControls(name) + " (" + SettingWords() + ")";
  if (value.empty()) return "set: empty value for " + std::string(name);
  // ";" ends the value on the agent; a keyword inside it would be dispatched as another command.
  if (value.find(';') != std::string_view::npos || value.find('|') != std::string_view::npos || HasControl(value))
    return "set: the value of " + std::string(name) + " cannot hold ';', '|' or control characters";
  return "";
}

std::string FleetUsageText() {
  return R"(Usage:
  agent-explorer fleet getinfo --hosts SPEC [OPTIONS]
  agent-explorer fleet getver  --hosts SPEC [OPTIONS]
  agent-explorer fleet set NAME=VALUE... --hosts SPEC [--apply] [OPTIONS]

Asks many agents at once, on their command ports, with the commands every agent
knows, and shows one row per host.

  getinfo      State, round-trip time and settings of every host: computer name,
               CurrentUser, Ext, Server, NotificationMethod, ListeningPorts.
  getver       The same, plus the version (and for services the state) of every
               component of the agent's component report, one column each.
  set          NAME is ext, server, notify, listen, pop4ext or pop4win (as for
               set). Shows every host's current value beside the new one; with
               --apply the SET commands are sent and each answer checked:
               changed, unchanged, or failed: <the agent's answer>. A host whose
               GETINFO did not answer is sent nothing.

States: ok, refused, timeout, closed (closed before |READY|, as an allow-list
does), not-an-agent (greeted with something else), error: <reason>.

SPEC: comma-separated entries, each asked once:
  HOST[:PORT]            a name or IPv4 address (port 5002 unless given)
  a.b.c.d/n[:PORT]       an IPv4 block, at most /16; its network and broadcast
                         addresses are skipped
  @FILE                  one entry per line, # starts a comment

Options:
  --hosts SPEC           the hosts (may be given more than once)
  --parallel N           connections at once, 1-1024 (default 64)
  --timeout SEC          per host, for the greeting and for each reply (default 5)
  --format F             table (default), csv or json
  --apply                set: send the SET commands
  -h, --help             this text

A summary line goes to standard error, and while the run lasts a progress line
when standard error is a terminal. Exit codes: 0 every host answered (and every
SET was stored), 1 some host did not (or a SET failed), 2 command line not
understood.
)";
}

Parsed ParseFleetArguments(const std::vector<std::string>& args, const FileReader& read_file) {
  Parsed p;
  Options& o = p.options;
  std::vector<std::string> pos;
  std::string list;
  bool have_hosts = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    std::string value;
    auto option = [&](const std::string& name) { return OptionValue(args, i, name, value); };
    int r = 0;
    if (a == "-h" || a == "--help") {
      p.help = true;
    } else if (a == "--apply") {
      o.apply = true;
    } else if ((r = option("--hosts")) != 0) {
      if (r < 0) return Fail("--hosts needs a SPEC");
      list += (list.empty() ? "" : ",") + value;
      have_hosts = true;
    } else if ((r = option("--parallel")) != 0) {
      char* end = nullptr;
      const long n = r > 0 ? std::strtol(value.c_str(), &end, 10) : 0;
      if (r < 0 || value.empty() || *end != '\0' || n < 1 || n > kMaxParallel)
        return Fail("--parallel: a number of connections from 1 to " + std::to_string(kMaxParallel) +
                    (r < 0 ? std::string() : ", not " + value));
      o.parallel = static_cast<int>(n);
    } else if ((r = option("--timeout")) != 0) {
      char* end = nullptr;
      const double secs = r > 0 ? std::strtod(value.c_str(), &end) : 0;
      if (r < 0 || value.empty() || *end != '\0' || !(secs > 0) || secs > 3600)
        return Fail("--timeout: a number of seconds up to 3600" + (r < 0 ? std::string() : ", not " + value));
      o.timeout_seconds = secs;
    } else if ((r = option("--format")) != 0) {
      if (r > 0 && value == "table") p.format = Format::kTable;
      else if (r > 0 && value == "csv") p.format = Format::kCsv;
      else if (r > 0 && value == "json") p.format = Format::kJson;
      else return Fail("--format: table, csv or json" + (r < 0 ? std::string() : ", not " + value));
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return Fail("unknown option " + a);
    } else {
      pos.push_back(a);
    }
  }
  if (p.help) {
    p.ok = true;
    return p;
  }
  if (pos.empty()) return Fail("fleet needs a command: getinfo, getver or set");
  const std::string& cmd = pos[0];
  if (cmd == "getinfo") o.command = Command::kGetInfo;
  else if (cmd == "getver") o.command = Command::kGetVer;
  else if (cmd == "set") o.command = Command::kSet;
  else return Fail("unknown fleet command " + cmd + " (getinfo, getver or set)");
  if (o.command != Command::kSet) {
    if (pos.size() > 1) return Fail(cmd + " takes no arguments, not " + pos[1]);
    if (o.apply) return Fail("--apply goes with set only");
  } else {
    if (pos.size() < 2) return Fail("set needs NAME=VALUE (NAME: " + SettingWords() + ")");
    for (size_t i = 1; i < pos.size(); ++i) {
      const size_t eq = pos[i].find('=');
      if (eq == std::string::npos) return Fail("set: expected NAME=VALUE, got " + EscapeControls(pos[i]));
      const std::string name = pos[i].substr(0, eq), value = pos[i].substr(eq + 1);
      const SettingName* s = FindSetting(name);
      if (!s) return Fail(SetValueProblem(name, value));
      for (const NewValue& v : o.values)
        if (v.setting == s) return Fail("set: " + name + " given twice");
      if (std::string problem = SetValueProblem(name, value); !problem.empty()) return Fail(problem);
      o.values.push_back({s, value});
    }
  }
  if (!have_hosts) return Fail("fleet needs --hosts SPEC");
  HostSpec hosts = ParseHostSpec(list, read_file);
  if (!hosts.ok) return Fail(hosts.error);
  o.hosts = std::move(hosts.hosts);
  p.ok = true;
  return p;
}

int FleetMain(const std::vector<std::string>& args, std::string& out, const std::function<void(const std::string&)>& err,
              bool progress_to_terminal) {
  Parsed p = ParseFleetArguments(args, [](const std::string& path) { return ReadBoundedFile(path, kMaxHostFileBytes); });
  if (!p.ok) {
    err("agent-explorer fleet: " + p.error + "\n(agent-explorer fleet --help shows the usage)\n");
    return kExitUsage;
  }
  if (p.help) {
    out = FleetUsageText();
    return kExitOk;
  }
  platform::AllowOpenSockets(static_cast<size_t>(p.options.parallel));
  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);
  const std::string time = TimeText(clock->Local());

  size_t shown = 0;
  int64_t last_shown = -1000;
  std::function<void(const Progress&)> progress;
  if (progress_to_terminal) {
    progress = [&](const Progress& pr) {
      if (pr.elapsed_ms - last_shown < 100 && pr.done != pr.total) return;
      last_shown = pr.elapsed_ms;
      // Rewritten in place: a carriage return, the line, and blanks over what a longer one left.
      const std::string text = ProgressLine(pr);
      std::string line(1, '\r');
      line += text;
      if (text.size() < shown) line.append(shown - text.size(), ' ');
      shown = text.size();
      err(line);
    };
  }
  const std::vector<HostResult> results = Run(loop, p.options, progress);
  if (shown > 0) {
    std::string clear(shown + 2, ' ');
    clear.front() = clear.back() = '\r';
    err(clear);
  }

  if (p.format == Format::kJson) {
    out = FormatJson(p.options, results, time);
  } else {
    const Table table = BuildTable(p.options, results);
    out = p.format == Format::kTable ? FormatTable(table) : FormatCsv(table);
    if (table.names_left_out)
      err("agent-explorer fleet: " + std::to_string(table.names_left_out) + " component names beyond the first " +
          std::to_string(kMaxComponentColumns) + " have no column (--format json lists them all)\n");
  }
  err(SummaryLine(p.options, results) + "\n");
  return AllAnswered(results) ? kExitOk : kExitNoReply;
}

}  // namespace tdacli::explorer::fleet
