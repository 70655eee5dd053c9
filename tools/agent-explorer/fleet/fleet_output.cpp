// What a fleet run shows: the rows as an aligned table, CSV or one JSON document, the summary line and
// the progress line.
#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <set>
#include <nlohmann/json.hpp>

#include "fleet.h"

namespace tdacli::explorer::fleet {

namespace {

using Json = nlohmann::ordered_json;

std::string_view CommandName(Command c) {
  switch (c) {
    case Command::kGetInfo: return "getinfo";
    case Command::kGetVer: return "getver";
    case Command::kSet: return "set";
  }
  return "";
}

// "error: reply too long" counts as "error" in the summary.
std::string Category(const std::string& state) { return state.rfind("error", 0) == 0 ? "error" : state; }

// The categories in the order the summary names them: "ok" first, then the most frequent.
std::vector<std::pair<std::string, size_t>> Counts(const std::vector<HostResult>& results) {
  static const std::array<std::string_view, 6> kOrder = {"ok", "timeout", "refused", "closed", "not-an-agent", "error"};
  std::map<std::string, size_t> n;
  for (const HostResult& r : results) ++n[Category(r.state)];
  std::vector<std::pair<std::string, size_t>> out(n.begin(), n.end());
  auto rank = [](const std::string& c) {
    return static_cast<size_t>(std::find(kOrder.begin(), kOrder.end(), c) - kOrder.begin());
  };
  std::stable_sort(out.begin(), out.end(), [&](const auto& a, const auto& b) {
    if ((a.first == "ok") != (b.first == "ok")) return a.first == "ok";
    if (a.second != b.second) return a.second > b.second;
    return rank(a.first) < rank(b.first);
  });
  return out;
}

// The outcomes of the SET rows: "changed", "unchanged", "would change", "failed".
std::vector<std::pair<std::string, size_t>> SetCounts(const std::vector<HostResult>& results) {
  static const std::array<std::string_view, 4> kOrder = {"changed", "would change", "unchanged", "failed"};
  std::map<std::string_view, size_t> n;
  for (const HostResult& r : results)
    for (const SetResult& s : r.sets) {
      if (s.result.empty()) continue;
      ++n[s.result.rfind("failed", 0) == 0 ? std::string_view("failed") : std::string_view(s.result)];
    }
  std::vector<std::pair<std::string, size_t>> out;
  for (std::string_view k : kOrder)
    if (n.count(k)) out.emplace_back(std::string(k), n[k]);
  return out;
}

// Characters on screen: UTF-8 continuation bytes take no column of their own.
size_t Width(std::string_view s) {
  return static_cast<size_t>(std::count_if(s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

const std::vector<std::string>& InfoColumns() {
  static const std::vector<std::string> c = {"computer", "current_user", "ext", "server", "notification_method",
                                             "listening_ports"};
  return c;
}

std::string InfoValue(const Info& i, const std::string& column) {
  if (column == "computer") return i.computer;
  if (column == "current_user") return i.current_user;
  if (const std::string* v = i.Column(column)) return *v;
  return "";
}

}  // namespace

std::string EscapeControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c >= 0x20 && c != 0x7F) {
      out += ch;
      continue;
    }
    switch (c) {
      case 0: out += "\\0"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      case '\n': out += "\\n"; break;
      default: {
        char buf[8];
        std::snprintf(buf, sizeof buf, "\\x%02X", c);
        out += buf;
      }
    }
  }
  return out;
}

std::string CsvField(std::string_view value) {
  std::string v = EscapeControls(value);
  // A spreadsheet runs a cell that starts like a formula; the quote mark makes it text.
  if (!v.empty() && (v[0] == '=' || v[0] == '+' || v[0] == '-' || v[0] == '@')) v.insert(0, 1, '\'');
  // Quoted also at a ';': a spreadsheet set to a locale that separates fields by ';' would otherwise
  // split the value there, and the piece after it would start a cell of its own, a formula perhaps.
  if (v.find_first_of(",;\"\r\n") == std::string::npos) return v;
  std::string q = "\"";
  for (char c : v) {
    if (c == '"') q += '"';
    q += c;
  }
  return q + "\"";
}

Table BuildTable(const Options& o, const std::vector<HostResult>& results) {
  Table t;
  t.columns = {"host", "port", "state", "rtt_ms"};
  auto head = [](const HostResult& r) {
    return std::vector<std::string>{r.host.name, std::to_string(r.host.port), r.state,
                                    r.rtt_ms >= 0 ? std::to_string(r.rtt_ms) : ""};
  };
  if (o.command == Command::kSet) {
    for (const char* c : {"setting", "current", "new", "result"}) t.columns.push_back(c);
    for (const HostResult& r : results) {
      for (size_t i = 0; i < o.values.size(); ++i) {
        std::vector<std::string> row = head(r);
        const SetResult* s = i < r.sets.size() ? &r.sets[i] : nullptr;
        row.push_back(std::string(o.values[i].setting->word));
        row.push_back(s && r.has_info ? s->current : "");
        row.push_back(o.values[i].value);
        row.push_back(s ? s->result : "");
        t.rows.push_back(std::move(row));
      }
    }
    return t;
  }
  const TableShape shape = ShapeTable(o, results);
  t.columns = shape.columns;
  t.names_left_out = shape.names_left_out;
  for (const HostResult& r : results) t.rows.push_back(TableRow(shape, r));
  return t;
}

TableShape ShapeTable(const Options& o, const std::vector<HostResult>& results) {
  TableShape t;
  t.columns = {"host", "port", "state", "rtt_ms"};
  for (const std::string& c : InfoColumns()) t.columns.push_back(c);
  // getver: a column per component in the order the reports name them, and a state column for the
  // components some agent reported a service state for.
  std::set<std::string_view> left_out;  // views into `results`, which outlive this
  if (o.command == Command::kGetVer) {
    for (const HostResult& r : results)
      for (const Component& c : r.components) {
        if (!t.has_state.count(c.name)) {
          if (t.names.size() >= kMaxComponentColumns) {
            left_out.insert(c.name);
            continue;
          }
          t.names.push_back(c.name);
          t.has_state[c.name] = false;
        }
        if (!c.state.empty()) t.has_state[c.name] = true;
      }
    t.names_left_out = left_out.size();
    for (const std::string& n : t.names) {
      t.columns.push_back(n);
      if (t.has_state.at(n)) t.columns.push_back(n + " state");
    }
  }
  return t;
}

std::vector<std::string> TableRow(const TableShape& shape, const HostResult& r) {
  std::vector<std::string> row = {r.host.name, std::to_string(r.host.port), r.state,
                                  r.rtt_ms >= 0 ? std::to_string(r.rtt_ms) : ""};
  for (const std::string& c : InfoColumns()) row.push_back(r.has_info ? InfoValue(r.info, c) : "");
  for (const std::string& n : shape.names) {
    auto it = std::find_if(r.components.begin(), r.components.end(), [&](const Component& c) { return c.name == n; });
    row.push_back(it != r.components.end() ? it->version : "");
    if (shape.has_state.at(n)) row.push_back(it != r.components.end() ? it->state : "");
  }
  return row;
}

std::string FormatTable(const Table& t) {
  std::vector<std::vector<std::string>> cells;
  auto add = [&](const std::vector<std::string>& row) {
    std::vector<std::string> r;
    for (const std::string& v : row) r.push_back(EscapeControls(v));
    cells.push_back(std::move(r));
  };
  add(t.columns);  // escaped as well: getver's column names come from the agents' reports
  for (const auto& row : t.rows) add(row);
  std::vector<size_t> width(t.columns.size(), 0);
  for (const auto& row : cells)
    for (size_t i = 0; i < row.size() && i < width.size(); ++i) width[i] = std::max(width[i], Width(row[i]));
  std::string out;
  for (const auto& row : cells) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      if (i) line += "  ";
      line += row[i];
      if (i + 1 < row.size()) line.append(width[i] - Width(row[i]), ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out += line + "\n";
  }
  return out;
}

std::string CsvRecord(const std::vector<std::string>& row) {
  std::string out;
  for (size_t i = 0; i < row.size(); ++i) {
    if (i) out += ',';
    out += CsvField(row[i]);
  }
  return out + "\r\n";
}

std::string FormatCsv(const Table& t) {
  std::string out = CsvRecord(t.columns);
  for (const auto& row : t.rows) out += CsvRecord(row);
  return out;
}

namespace {

// ASCII only: every other character, and any byte that is no UTF-8, escaped or replaced.
std::string Dump(const Json& j) { return j.dump(2, ' ', true, Json::error_handler_t::replace); }

}  // namespace

std::string JsonBegin(const Options& o, const std::vector<HostResult>& results, const std::string& time) {
  Json doc;
  doc["command"] = CommandName(o.command);
  doc["time"] = time;
  if (o.command == Command::kSet) doc["apply"] = o.apply;
  Json summary;
  summary["hosts"] = results.size();
  for (const auto& [category, n] : Counts(results)) summary[category] = n;
  for (const auto& [outcome, n] : SetCounts(results)) summary[outcome] = n;
  doc["summary"] = summary;
  doc["hosts"] = Json::array();
  std::string out = Dump(doc);
  // The hosts follow one at a time, each indented to its depth in the document: one document of
  // thousands of hosts would hold many times the text's size.
  out.erase(out.size() - std::string_view("[]\n}").size());
  return out + (results.empty() ? "[]" : "[\n");
}

std::string JsonHost(const Options& o, const HostResult& r, bool last) {
  Json h;
  h["host"] = r.host.name;
  h["port"] = r.host.port;
  h["state"] = r.state;
  h["rtt_ms"] = r.rtt_ms >= 0 ? Json(r.rtt_ms) : Json(nullptr);
  if (r.has_info) {
    const Info& in = r.info;
    h["computer"] = in.computer;
    h["network_user"] = in.network_user;
    h["current_user"] = in.current_user;
    h["ext"] = in.ext;
    h["server"] = in.server;
    h["notification_method"] = in.notification_method;
    h["listening_ports"] = in.listening_ports;
    h["pop4ext"] = in.pop4ext;
    h["pop4win"] = in.pop4win;
  }
  if (o.command == Command::kGetVer) {
    Json components = Json::array();
    for (const Component& c : r.components) {
      Json j;
      j["name"] = c.name;
      j["version"] = c.version;
      j["state"] = c.state.empty() ? Json(nullptr) : Json(c.state);
      components.push_back(std::move(j));
    }
    h["components"] = std::move(components);
  }
  if (o.command == Command::kSet) {
    Json settings = Json::array();
    for (size_t k = 0; k < o.values.size(); ++k) {
      const SetResult* s = k < r.sets.size() ? &r.sets[k] : nullptr;
      Json j;
      j["setting"] = o.values[k].setting->word;
      j["current"] = s && r.has_info ? Json(s->current) : Json(nullptr);
      j["new"] = o.values[k].value;
      j["result"] = s && !s->result.empty() ? Json(s->result) : Json(nullptr);
      settings.push_back(std::move(j));
    }
    h["settings"] = std::move(settings);
  }
  // A dumped string never holds a line break: every line is indented by the host's depth.
  const std::string text = Dump(h);
  std::string out = "    ";
  for (char c : text) {
    out += c;
    if (c == '\n') out += "    ";
  }
  return out + (last ? "\n" : ",\n");
}

std::string JsonEnd(const std::vector<HostResult>& results) { return results.empty() ? "\n}\n" : "  ]\n}\n"; }

std::string FormatJson(const Options& o, const std::vector<HostResult>& results, const std::string& time) {
  std::string out = JsonBegin(o, results, time);
  for (size_t i = 0; i < results.size(); ++i) out += JsonHost(o, results[i], i + 1 == results.size());
  return out + JsonEnd(results);
}

std::string SummaryLine(const Options& o, const std::vector<HostResult>& results) {
  std::string s = std::to_string(results.size()) + (results.size() == 1 ? " host: " : " hosts: ");
  bool first = true;
  for (const auto& [category, n] : Counts(results)) {
    if (!first) s += ", ";
    first = false;
    s += std::to_string(n) + " " + category;
  }
  if (o.command == Command::kSet) {
    first = true;
    for (const auto& [outcome, n] : SetCounts(results)) {
      s += first ? "; " : ", ";
      first = false;
      s += std::to_string(n) + " " + outcome;
    }
  }
  return s;
}

bool AllAnswered(const std::vector<HostResult>& results) {
  for (const HostResult& r : results) {
    if (r.state != "ok") return false;
    for (const SetResult& s : r.sets)
      if (s.result.rfind("failed", 0) == 0) return false;
  }
  return true;
}

std::string ProgressLine(const Progress& p) {
  const double seconds = static_cast<double>(p.elapsed_ms) / 1000.0;
  const double rate = seconds > 0 ? static_cast<double>(p.done) / seconds : 0;
  char buf[128];
  std::snprintf(buf, sizeof buf, "%zu/%zu done, %zu failed, %.0f hosts/s", p.done, p.total, p.failed, rate);
  return buf;
}

}  // namespace tdacli::explorer::fleet
