// The published floor: common values, drift, and the JSON and exports of the web console.
#include "web/floor.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace tdacli::explorer::web {

namespace {

using Json = nlohmann::ordered_json;

std::string Dump(const Json& j) { return j.dump(-1, ' ', true, Json::error_handler_t::replace); }

// The value more hosts hold than any other; empty on a tie.
std::string MostCommon(const std::map<std::string, size_t>& counts) {
  std::string best;
  size_t most = 0;
  bool tie = false;
  for (const auto& [value, n] : counts) {
    if (n > most) {
      best = value;
      most = n;
      tie = false;
    } else if (n == most) {
      tie = true;
    }
  }
  return tie ? std::string() : best;
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool ContainsFolded(std::string_view haystack, std::string_view needle) {
  if (needle.empty()) return true;
  if (needle.size() > haystack.size()) return false;
  for (size_t i = 0; i + needle.size() <= haystack.size(); ++i) {
    size_t k = 0;
    while (k < needle.size() && Lower(haystack[i + k]) == Lower(needle[k])) ++k;
    if (k == needle.size()) return true;
  }
  return false;
}

Json RowJson(const Floor& f, size_t i) {
  const fleet::HostResult& r = f.results[i];
  Json h;
  h["host"] = HostKey(r.host);
  h["state"] = r.state.empty() ? "pending" : r.state;
  h["category"] = StateCategory(r.state);
  h["rtt_ms"] = r.rtt_ms >= 0 ? Json(r.rtt_ms) : Json(nullptr);
  const fleet::Info& in = r.info;
  h["computer"] = r.has_info ? in.computer : "";
  h["current_user"] = r.has_info ? in.current_user : "";
  h["ext"] = r.has_info ? in.ext : "";
  h["server"] = r.has_info ? in.server : "";
  h["notification_method"] = r.has_info ? in.notification_method : "";
  h["listening_ports"] = r.has_info ? in.listening_ports : "";
  h["version"] = AgentVersion(r);
  h["time"] = f.answered[i];
  h["drift"] = f.drift[i];
  return h;
}

fleet::Options ExportOptions(const Floor& floor, const std::vector<size_t>& rows) {
  fleet::Options o;
  o.command = fleet::Command::kGetVer;
  for (size_t i : rows) o.hosts.push_back(floor.results[i].host);
  return o;
}

std::vector<fleet::HostResult> Pick(const Floor& floor, const std::vector<size_t>& rows) {
  std::vector<fleet::HostResult> out;
  out.reserve(rows.size());
  for (size_t i : rows) out.push_back(floor.results[i]);
  return out;
}

}  // namespace

std::string_view StateCategory(std::string_view state) {
  if (state.empty()) return "pending";
  if (state.substr(0, 5) == "error") return "error";
  return state;
}

FloorValues CommonValues(const std::vector<fleet::HostResult>& results) {
  std::map<std::string, size_t> server, notify, listen;
  std::map<std::string, std::map<std::string, size_t>> components;
  for (const fleet::HostResult& r : results) {
    if (!r.has_info) continue;
    ++server[r.info.server];
    ++notify[r.info.notification_method];
    ++listen[r.info.listening_ports];
    for (const fleet::Component& c : r.components) ++components[c.name][c.version];
  }
  FloorValues f;
  f.server = MostCommon(server);
  f.notification_method = MostCommon(notify);
  f.listening_ports = MostCommon(listen);
  for (const auto& [name, versions] : components) {
    std::string v = MostCommon(versions);
    if (!v.empty()) f.components[name] = std::move(v);
  }
  return f;
}

std::vector<std::string> Drift(const fleet::HostResult& r, const FloorValues& floor) {
  std::vector<std::string> out;
  if (!r.has_info) return out;
  if (!floor.server.empty() && r.info.server != floor.server) out.push_back("server");
  if (!floor.notification_method.empty() && r.info.notification_method != floor.notification_method)
    out.push_back("notification_method");
  if (!floor.listening_ports.empty() && r.info.listening_ports != floor.listening_ports)
    out.push_back("listening_ports");
  for (const fleet::Component& c : r.components) {
    auto it = floor.components.find(c.name);
    if (it != floor.components.end() && it->second != c.version) out.push_back("component:" + c.name);
  }
  return out;
}

std::string AgentVersion(const fleet::HostResult& r) { return r.components.empty() ? "" : r.components.front().version; }

std::string TimeText(const platform::LocalTime& t) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d", t.year, t.month, t.day, t.hour, t.minute, t.second);
  return buf;
}

std::string HostKey(const fleet::Host& h) { return h.name + ":" + std::to_string(h.port); }

std::shared_ptr<const Floor> BuildFloor(std::vector<fleet::HostResult> results, uint64_t scan,
                                        const platform::LocalTime& started, int64_t started_ms) {
  auto f = std::make_shared<Floor>();
  f->scan = scan;
  f->time = scan ? TimeText(started) : "";
  f->started_ms = started_ms;
  f->results = std::move(results);
  f->common = CommonValues(f->results);
  const int64_t start_seconds = platform::SecondsFromLocal(started);
  f->answered.reserve(f->results.size());
  f->drift.reserve(f->results.size());
  f->rows.reserve(f->results.size());
  for (size_t i = 0; i < f->results.size(); ++i) {
    const fleet::HostResult& r = f->results[i];
    f->answered.push_back(r.finished_ms >= 0 ? TimeText(platform::LocalFromSeconds(
                                                   start_seconds + (r.finished_ms - started_ms) / 1000))
                                             : std::string());
    f->drift.push_back(Drift(r, f->common));
    f->rows.emplace(HostKey(r.host), i);
  }
  // Built row by row: one JSON document of thousands of hosts would hold many times the text's size.
  std::string rows = "[";
  for (size_t i = 0; i < f->results.size(); ++i) {
    if (i) rows += ',';
    rows += Dump(RowJson(*f, i));
  }
  rows += ']';
  f->rows_json = std::move(rows);
  return f;
}

std::string ScanJson(const ScanStatus& s) {
  Json j;
  j["running"] = s.running;
  j["done"] = s.done;
  j["total"] = s.total;
  j["failed"] = s.failed;
  j["scans"] = s.scans;
  return Dump(j);
}

std::string HostsJson(const Floor& floor, const ScanStatus& status) {
  return HostsJsonHead(floor, status) + floor.rows_json + "}";
}

std::string HostsJsonHead(const Floor& floor, const ScanStatus& status) {
  Json counts;
  for (std::string_view s : kStates) counts[std::string(s)] = 0;
  counts["pending"] = 0;
  for (const fleet::HostResult& r : floor.results) {
    Json& n = counts[std::string(StateCategory(r.state))];
    n = n.get<size_t>() + 1;
  }
  Json common;
  common["server"] = floor.common.server;
  common["notification_method"] = floor.common.notification_method;
  common["listening_ports"] = floor.common.listening_ports;
  common["components"] = floor.common.components;
  return "{\"scan\":" + ScanJson(status) + ",\"time\":" + Dump(Json(floor.time)) + ",\"counts\":" + Dump(counts) +
         ",\"common\":" + Dump(common) + ",\"hosts\":";
}

std::string SeatJson(const Floor& floor, size_t row) {
  const fleet::HostResult& r = floor.results[row];
  Json h = RowJson(floor, row);
  if (r.has_info) {
    h["network_user"] = r.info.network_user;
    h["pop4ext"] = r.info.pop4ext;
    h["pop4win"] = r.info.pop4win;
  }
  Json components = Json::array();
  for (const fleet::Component& c : r.components) {
    Json j;
    j["name"] = c.name;
    j["version"] = c.version;
    j["state"] = c.state;
    components.push_back(std::move(j));
  }
  h["components"] = std::move(components);
  return Dump(h);
}

std::vector<size_t> FilterRows(const Floor& floor, const ViewFilter& filter) {
  std::vector<size_t> out;
  for (size_t i = 0; i < floor.results.size(); ++i) {
    const fleet::HostResult& r = floor.results[i];
    if (!filter.state.empty() && StateCategory(r.state) != filter.state) continue;
    if (filter.drift_only && floor.drift[i].empty()) continue;
    if (!filter.text.empty()) {
      const fleet::Info& in = r.info;
      const std::string version = AgentVersion(r);
      const std::string key = HostKey(r.host);
      const std::string_view shown[] = {key,    r.state.empty() ? "pending" : std::string_view(r.state),
                                        in.computer, in.current_user, in.ext, in.server, in.notification_method,
                                        in.listening_ports, version, floor.answered[i]};
      if (std::none_of(std::begin(shown), std::end(shown),
                       [&](std::string_view v) { return ContainsFolded(v, filter.text); }))
        continue;
    }
    out.push_back(i);
  }
  return out;
}

Export::Export(std::shared_ptr<const Floor> floor, std::vector<size_t> rows, Format format)
    : floor_(std::move(floor)), format_(format) {
  // Every row in order is the floor's own results; a filtered view gets a copy of its rows.
  whole_ = rows.size() == floor_->results.size();
  for (size_t i = 0; whole_ && i < rows.size(); ++i) whole_ = rows[i] == i;
  if (!whole_) picked_ = Pick(*floor_, rows);
  options_ = ExportOptions(*floor_, rows);
  if (format_ == kCsv) shape_ = fleet::ShapeTable(options_, Results());
}

const std::vector<fleet::HostResult>& Export::Results() const { return whole_ ? floor_->results : picked_; }

std::string Export::Next() {
  const std::vector<fleet::HostResult>& results = Results();
  const size_t at = next_;
  if (at > results.size() + 1) return "";
  ++next_;
  if (format_ == kCsv) {
    if (at == 0) return fleet::CsvRecord(shape_.columns);
    if (at <= results.size()) return fleet::CsvRecord(fleet::TableRow(shape_, results[at - 1]));
    return "";
  }
  if (at == 0) return fleet::JsonBegin(options_, results, floor_->time);
  if (at <= results.size()) return fleet::JsonHost(options_, results[at - 1], at == results.size());
  return fleet::JsonEnd(results);
}

namespace {

std::string Whole(Export e) {
  std::string out;
  for (std::string piece = e.Next(); !piece.empty(); piece = e.Next()) out += piece;
  return out;
}

}  // namespace

std::string ExportCsv(std::shared_ptr<const Floor> floor, const std::vector<size_t>& rows) {
  return Whole(Export(std::move(floor), rows, Export::kCsv));
}

std::string ExportJson(std::shared_ptr<const Floor> floor, const std::vector<size_t>& rows) {
  return Whole(Export(std::move(floor), rows, Export::kJson));
}

}  // namespace tdacli::explorer::web
