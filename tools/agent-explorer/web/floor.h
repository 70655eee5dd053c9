#pragma once
// The floor as the web console shows it: the results of the last scan, published whole and never
// changed afterwards (the HTTP threads read it while the engine thread scans), the floor's most
// common values and each seat's drift from them, and the JSON and exports built from it.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "fleet/fleet.h"
#include "platform/clock.h"

namespace tdacli::explorer::web {

// The states a row can be in, in the order the page counts them; a host not scanned yet is "pending".
inline constexpr std::string_view kStates[] = {"ok", "refused", "timeout", "closed", "not-an-agent", "error"};
// "error: reply too long" counts as "error"; an empty state (not scanned yet) as "pending".
std::string_view StateCategory(std::string_view state);

// The value most hosts that answered share, per setting and per component; empty where no value is
// held by more hosts than any other (a tie, or nobody answered).
struct FloorValues {
  std::string server, notification_method, listening_ports;
  std::map<std::string, std::string> components;  // name -> version
};
FloorValues CommonValues(const std::vector<fleet::HostResult>& results);
// What of a seat differs from the floor: "server", "notification_method", "listening_ports" and
// "component:<name>" for each component whose version differs (a component the seat lacks is no drift).
std::vector<std::string> Drift(const fleet::HostResult& r, const FloorValues& floor);
// The agent's own version: the first row of its component report (the agent itself).
std::string AgentVersion(const fleet::HostResult& r);

// A scan's results as published.
struct Floor {
  uint64_t scan = 0;                       // 0: nothing scanned yet
  std::string time;                        // when the scan started, "YYYY-MM-DDTHH:MM:SS"
  int64_t started_ms = 0;                  // the same on the engine's clock (milliseconds)
  std::vector<fleet::HostResult> results;  // in the order of the host list
  std::vector<std::string> answered;       // per row: the time of its answer
  std::vector<std::vector<std::string>> drift;
  FloorValues common;
  std::unordered_map<std::string, size_t> rows;  // "host:port" -> row
  std::string rows_json;                   // the rows of /api/hosts, built once
};

std::string TimeText(const platform::LocalTime& t);
std::string HostKey(const fleet::Host& h);

// Publishes results: `started` is the wall time and `started_ms` the loop's clock when the scan
// began (each row's answer time is counted from them). Results of no scan (every state empty) make
// the floor shown before the first scan ends.
std::shared_ptr<const Floor> BuildFloor(std::vector<fleet::HostResult> results, uint64_t scan,
                                        const platform::LocalTime& started, int64_t started_ms);

struct ScanStatus {
  bool running = false;
  size_t done = 0, total = 0, failed = 0;
  uint64_t scans = 0;  // scans finished
};

// GET /api/scan: {"running":..,"done":..,"total":..,"failed":..,"scans":..}
std::string ScanJson(const ScanStatus& s);
// GET /api/hosts: the scan, the counts per state, the floor's common values and one object per row.
std::string HostsJson(const Floor& floor, const ScanStatus& status);
// The same in three pieces, the middle one the floor's own rows_json (written without a copy):
// HostsJsonHead + floor.rows_json + "}".
std::string HostsJsonHead(const Floor& floor, const ScanStatus& status);
// GET /api/hosts/HOST:PORT: every GETINFO value, the component report, the drift.
std::string SeatJson(const Floor& floor, size_t row);

// The page's view: text (any shown value contains it, ASCII letters matched without regard to case),
// a state category, drift only.
struct ViewFilter {
  std::string text, state;
  bool drift_only = false;
};
std::vector<size_t> FilterRows(const Floor& floor, const ViewFilter& filter);
// The rows in fleet getver's CSV or JSON format, a piece at a time (a host's row or object): an
// export of thousands of hosts is written as it is made, never held whole.
class Export {
 public:
  enum Format { kCsv, kJson };
  Export(std::shared_ptr<const Floor> floor, std::vector<size_t> rows, Format format);
  // The next piece; "" once the export is complete.
  std::string Next();

 private:
  const std::vector<fleet::HostResult>& Results() const;
  std::shared_ptr<const Floor> floor_;
  std::vector<fleet::HostResult> picked_;  // a filtered view's rows (the whole floor is used as it is)
  bool whole_;
  Format format_;
  fleet::Options options_;
  fleet::TableShape shape_;
  size_t next_ = 0;  // 0: the beginning; i + 1: row i; size + 1: the end
};
// The whole export at once.
std::string ExportCsv(std::shared_ptr<const Floor> floor, const std::vector<size_t>& rows);
std::string ExportJson(std::shared_ptr<const Floor> floor, const std::vector<size_t>& rows);

}  // namespace tdacli::explorer::web
