// Feeds arbitrary bytes to the fleet console as an agent's replies: as a GETINFO reply (ParseInfo) and
// as a component report (ParseComponents), then shows what was kept as a table, CSV and JSON. What is
// kept stays within its bounds, the table and the CSV hold no control character but their line ends,
// no CSV cell starts like a formula, and the JSON document parses.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "fleet/fleet.h"

using namespace tdacli::explorer::fleet;

namespace {

void NoControls(const std::string& text, bool crlf_records) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      if (crlf_records && (i == 0 || text[i - 1] != '\r')) __builtin_trap();
      continue;
    }
    if (c == '\r' && crlf_records && i + 1 < text.size() && text[i + 1] == '\n') continue;
    if (c < 0x20 || c == 0x7F) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view reply(reinterpret_cast<const char*>(data), size);
  HostResult r;
  r.host = {"pc-0042", 5002};
  r.state = "ok";
  r.rtt_ms = 1;
  if (auto info = ParseInfo(reply)) {
    for (const std::string* v : {&info->computer, &info->network_user, &info->current_user, &info->ext, &info->server,
                                 &info->notification_method, &info->listening_ports, &info->pop4ext, &info->pop4win})
      if (v->size() > kMaxCellBytes) __builtin_trap();
    r.has_info = true;
    r.info = *info;
  }
  // The same bytes behind the report's keyword, so that both parsers see them.
  const std::string report = "|GETVER|<Status>" + std::string(reply);
  r.components = ParseComponents(report);
  if (r.components.size() > kMaxComponents) __builtin_trap();
  for (const Component& c : r.components)
    if (c.name.empty() || c.name.size() > kMaxCellBytes || c.version.size() > kMaxCellBytes ||
        c.state.size() > kMaxCellBytes)
      __builtin_trap();

  Options o;
  o.command = Command::kGetVer;
  o.hosts = {r.host};
  const std::vector<HostResult> results = {r};
  const Table t = BuildTable(o, results);
  for (const auto& row : t.rows)
    if (row.size() != t.columns.size()) __builtin_trap();
  NoControls(FormatTable(t), false);
  const std::string csv = FormatCsv(t);
  NoControls(csv, true);
  for (const auto& row : t.rows)
    for (const std::string& v : row) {
      const std::string f = CsvField(v);
      const char first = f.size() > 1 && f[0] == '"' ? f[1] : (f.empty() ? '\0' : f[0]);
      if (first == '=' || first == '+' || first == '-' || first == '@') __builtin_trap();
    }
  const std::string json = FormatJson(o, results, "2026-11-14T23:15:02");
  for (char c : json)
    if (static_cast<unsigned char>(c) >= 0x7F || (static_cast<unsigned char>(c) < 0x20 && c != '\n')) __builtin_trap();
  if (!nlohmann::json::accept(json)) __builtin_trap();
  return 0;
}
