#pragma once
// The fleet console: one command asked of many agents at once, on one event loop with many non-blocking
// connections (never a thread per host), and the answers as a table, CSV or JSON. It speaks only the
// command port's existing commands (GETINFO, GETVER, the single SET commands), so agents of any
// version are served.
//
// Everything an agent sends is untrusted: each reply is capped, a stage that does not finish within
// the time-out is cut, a greeting that is not "|READY|" ends the conversation, and what is kept of a
// reply is bounded per cell.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/event_loop.h"

namespace tdacli::explorer::fleet {

// --- the host list -------------------------------------------------------------------------------

struct Host {
  std::string name;  // dotted IPv4 address or host name (names lower-cased)
  uint16_t port = 5002;
  bool operator==(const Host&) const = default;
};

inline constexpr uint16_t kDefaultPort = 5002;
// A block wider than this would be a whole site's address plan rather than a floor of workstations.
inline constexpr int kWidestBlock = 16;
// Hosts in one run (a /16 holds 65,534): enough for every seat of the largest call centre many times
// over, and a bound on what one mistyped host list can make the console hold.
inline constexpr size_t kMaxHosts = 65536;
// Addresses a host list may name before duplicates are removed (overlapping blocks, repeated files).
inline constexpr size_t kMaxExpanded = 1 << 20;
// A host file larger than this is refused (a line per host: 65,536 lines of a long name fit).
inline constexpr size_t kMaxHostFileBytes = 16 << 20;

// Reads a host file: its content, or nothing when it cannot be read. May return more than
// kMaxHostFileBytes (the parser then refuses the file); a reader should stop soon after that.
using FileReader = std::function<std::optional<std::string>(const std::string& path)>;

struct HostSpec {
  bool ok = false;
  std::vector<Host> hosts;  // in the order first named, each once
  std::string error;        // why the host list was refused, naming the entry
};

// SPEC: comma-separated HOST[:PORT], IPv4 blocks a.b.c.d/n[:PORT] (n from 16 to 32; the network and
// broadcast addresses are skipped, except in /31 and /32) and @FILE (one entry per line, "#" starts a
// comment; a file cannot name another file). Blanks around entries and empty entries are ignored.
HostSpec ParseHostSpec(std::string_view list, const FileReader& read_file, uint16_t default_port = kDefaultPort);

// --- the run -------------------------------------------------------------------------------------

enum class Command { kGetInfo, kGetVer, kSet };

// A setting `fleet set` can change: the word on the command line, the single SET command's keyword and
// the tag of its reply.
struct SettingName {
  std::string_view word;     // "server"
  std::string_view keyword;  // "|SETSERVER|"
  std::string_view tag;      // "<TD Server>"
  std::string_view column;   // the GETINFO value it changes: "server"
};
const std::vector<SettingName>& SettingNames();
const SettingName* FindSetting(std::string_view word);

// Why `value` cannot be sent as the setting `name` ("" when it can): an unknown name, an empty value,
// or a value holding ";" (it ends the value on the agent), "|" (a keyword inside it would be taken
// as another command) or a control character. The texts begin with "set: ".
std::string SetValueProblem(std::string_view name, std::string_view value);

struct NewValue {
  const SettingName* setting = nullptr;
  std::string value;
};

struct Options {
  Command command = Command::kGetInfo;
  std::vector<Host> hosts;
  std::vector<NewValue> values;  // set: in the order given
  bool apply = false;            // set: send the SET commands
  int parallel = 64;
  double timeout_seconds = 5;
};

inline constexpr int kMaxParallel = 1024;
// A reply longer than this ends the host's conversation ("error: reply too long").
inline constexpr size_t kMaxReplyBytes = 65536;
// What is kept of one value of a reply; a longer one is cut and ends with "...".
inline constexpr size_t kMaxCellBytes = 256;
// Components kept from one component report.
inline constexpr size_t kMaxComponents = 64;
// Component columns of a getver table or CSV. Columns are the names all hosts reported together, so
// hosts that each made up names of their own would otherwise multiply rows by columns; the suite
// has a few dozen components. JSON lists every host's own components and needs no such bound.
inline constexpr size_t kMaxComponentColumns = 100;

// The settings of a GETINFO reply, each with the NUL that ends the two names removed.
struct Info {
  std::string computer, network_user, current_user, ext, server, notification_method, listening_ports, pop4ext,
      pop4win;
  // The value a setting column names ("ext", "server", ...).
  const std::string* Column(std::string_view column) const;
};

// One row of the component report: "Agent Login Service", "3, 0, 0, 7", "RUNNING".
struct Component {
  std::string name, version, state;
};

struct SetResult {
  std::string current;  // empty when the host did not answer
  // "would change", "unchanged", "changed", "failed: <answer>", or empty when nothing was asked.
  std::string result;
};

struct HostResult {
  Host host;
  // "ok", "refused", "timeout", "closed" (before "|READY|"), "not-an-agent" (another greeting), or
  // "error: <reason>".
  std::string state;
  int64_t rtt_ms = -1;  // GETINFO sent to its reply complete; -1 without a reply
  bool has_info = false;
  Info info;
  std::vector<Component> components;  // getver
  std::vector<SetResult> sets;        // set: one per NewValue
  int64_t finished_ms = -1;           // the loop's clock when the host's conversation ended
};

struct Progress {
  size_t done = 0, total = 0, failed = 0;
  int64_t elapsed_ms = 0;
};

// Asks every host of `o` on `loop`, at most o.parallel at once; results in the order of o.hosts.
// `progress` (optional) is called after every finished host and, while hosts are in hand, about every
// `progress_every_ms`.
std::vector<HostResult> Run(platform::EventLoop& loop, const Options& o,
                            const std::function<void(const Progress&)>& progress = nullptr,
                            int progress_every_ms = 200);

// GETINFO's values, when the reply is one.
std::optional<Info> ParseInfo(std::string_view reply);
// The component rows of a GETVER reply, in report order.
std::vector<Component> ParseComponents(std::string_view reply);

// --- output --------------------------------------------------------------------------------------

enum class Format { kTable, kCsv, kJson };

struct Table {
  std::vector<std::string> columns;
  std::vector<std::vector<std::string>> rows;  // raw values; each format escapes them its own way
  size_t names_left_out = 0;  // component names beyond kMaxComponentColumns
};
Table BuildTable(const Options& o, const std::vector<HostResult>& results);

// Control characters as \0, \t, \r, \n or \xNN.
std::string EscapeControls(std::string_view text);
// One CSV field: control characters escaped, a leading "=", "+", "-" or "@" guarded by "'", quoted
// (RFC 4180) when it holds a comma, a quote or a line break.
std::string CsvField(std::string_view value);
std::string FormatTable(const Table& t);
std::string FormatCsv(const Table& t);  // CR LF after every record
// One CSV record of FormatCsv.
std::string CsvRecord(const std::vector<std::string>& row);
// One JSON document: the command, `time`, the summary and one object per host.
std::string FormatJson(const Options& o, const std::vector<HostResult>& results, const std::string& time);

// The same outputs a piece at a time, for a caller that writes them as they are made: the columns of a
// getinfo or getver table (one pass over the results), then each host's row; the JSON document's
// beginning, each host's object (`last`: no comma after it), and its end. Joined, the pieces are
// exactly what BuildTable and FormatJson give.
struct TableShape {
  std::vector<std::string> columns;
  std::vector<std::string> names;      // getver: the component columns
  std::map<std::string, bool> has_state;  // getver: whether a name has a state column
  size_t names_left_out = 0;
};
TableShape ShapeTable(const Options& o, const std::vector<HostResult>& results);
std::vector<std::string> TableRow(const TableShape& shape, const HostResult& r);  // getinfo and getver
std::string JsonBegin(const Options& o, const std::vector<HostResult>& results, const std::string& time);
std::string JsonHost(const Options& o, const HostResult& r, bool last);
std::string JsonEnd(const std::vector<HostResult>& results);

// "312 hosts: 298 ok, 9 timeout, 5 refused" (set --apply adds "; 290 changed, 8 unchanged").
std::string SummaryLine(const Options& o, const std::vector<HostResult>& results);
// Whether the run counts as a success: every host answered (and no SET failed).
bool AllAnswered(const std::vector<HostResult>& results);
// The progress line (without the carriage return that rewrites it).
std::string ProgressLine(const Progress& p);

// --- the command line ----------------------------------------------------------------------------

struct Parsed {
  bool ok = false;
  bool help = false;
  Options options;
  Format format = Format::kTable;
  std::string error;
};
// The arguments after "fleet".
Parsed ParseFleetArguments(const std::vector<std::string>& args, const FileReader& read_file);
std::string FleetUsageText();

// The whole `agent-explorer fleet ...` program: writes the output to `out`, the progress line (when
// `progress_to_terminal`), the summary and errors to `err`; returns the exit code.
int FleetMain(const std::vector<std::string>& args, std::string& out, const std::function<void(const std::string&)>& err,
              bool progress_to_terminal);

}  // namespace tdacli::explorer::fleet
