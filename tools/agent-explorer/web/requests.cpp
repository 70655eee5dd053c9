// Parsers of what browsers and API clients send to the web console.
#include "web/requests.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <set>

namespace tdacli::explorer::web {

namespace {

bool HostChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-';
}

bool TokenChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
         c == '~' || c == '-';
}

SetRequest Refuse(std::string why) {
  SetRequest r;
  r.error = std::move(why);
  return r;
}

// How deeply arrays and objects nest, strings skipped; more than `limit` stops the count.
int Depth(std::string_view text, int limit) {
  int depth = 0, deepest = 0;
  bool in_string = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') ++i;
      else if (c == '"') in_string = false;
      continue;
    }
    if (c == '"') in_string = true;
    else if (c == '[' || c == '{') deepest = std::max(deepest, ++depth);
    else if (c == ']' || c == '}') --depth;
    if (deepest > limit) break;
  }
  return deepest;
}

}  // namespace

std::optional<std::string> ParseHostKey(std::string_view text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0 || colon > 253) return std::nullopt;
  const std::string_view host = text.substr(0, colon), port = text.substr(colon + 1);
  if (!std::all_of(host.begin(), host.end(), HostChar)) return std::nullopt;
  if (port.empty() || port.size() > 5 || port[0] == '0') return std::nullopt;
  uint32_t p = 0;
  for (char c : port) {
    if (c < '0' || c > '9') return std::nullopt;
    p = p * 10 + static_cast<uint32_t>(c - '0');
  }
  if (p > 65535) return std::nullopt;
  return std::string(text);
}

SetRequest ParseSetRequest(std::string_view body) {
  using Json = nlohmann::json;
  if (body.size() > kMaxBodyBytes) return Refuse("the body is larger than " + std::to_string(kMaxBodyBytes) + " bytes");
  if (Depth(body, kMaxBodyDepth) > kMaxBodyDepth) return Refuse("the body nests too deeply");
  const Json j = Json::parse(body.begin(), body.end(), nullptr, false);
  if (j.is_discarded() || !j.is_object()) return Refuse("the body is no JSON object");
  for (const auto& [key, value] : j.items())
    if (key != "hosts" && key != "settings" && key != "apply" && key != "preview")
      return Refuse("unknown field " + Json(key).dump(-1, ' ', true, Json::error_handler_t::replace));
  SetRequest r;
  const auto hosts = j.find("hosts");
  if (hosts == j.end() || !hosts->is_array() || hosts->empty()) return Refuse("\"hosts\" must be a list of hosts");
  if (hosts->size() > fleet::kMaxHosts) return Refuse("more than " + std::to_string(fleet::kMaxHosts) + " hosts");
  std::set<std::string> seen;
  for (const Json& h : *hosts) {
    if (!h.is_string()) return Refuse("\"hosts\" must be a list of hosts");
    auto key = ParseHostKey(h.get_ref<const std::string&>());
    if (!key) return Refuse("not a host: " + h.dump(-1, ' ', true, Json::error_handler_t::replace).substr(0, 90));
    if (seen.insert(*key).second) r.hosts.push_back(*key);
  }
  const auto settings = j.find("settings");
  if (settings == j.end() || !settings->is_object() || settings->empty())
    return Refuse("\"settings\" must name at least one setting");
  for (const auto& [name, value] : settings->items()) {
    if (!value.is_string()) return Refuse("the value of a setting must be a string");
    const std::string problem = fleet::SetValueProblem(name, value.get_ref<const std::string&>());
    if (!problem.empty()) return Refuse(problem);
  }
  // In the order fleet names the settings, as `fleet set` sends them.
  for (const fleet::SettingName& s : fleet::SettingNames()) {
    auto v = settings->find(std::string(s.word));
    if (v != settings->end()) r.values.push_back({&s, v->get<std::string>()});
  }
  const auto apply = j.find("apply");
  if (apply != j.end() && !apply->is_boolean()) return Refuse("\"apply\" must be true or false");
  r.apply = apply != j.end() && apply->get<bool>();
  const auto preview = j.find("preview");
  if (preview != j.end()) {
    if (!preview->is_string() || !IsTokenText(preview->get_ref<const std::string&>()))
      return Refuse("\"preview\" is no preview");
    r.preview = preview->get<std::string>();
  }
  if (r.apply && r.preview.empty()) return Refuse("apply needs the \"preview\" it applies");
  r.ok = true;
  return r;
}

std::string CookieValue(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    const size_t semi = header.find(';');
    std::string_view pair = header.substr(0, semi);
    header.remove_prefix(semi == std::string_view::npos ? header.size() : semi + 1);
    while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
    const size_t eq = pair.find('=');
    if (eq == std::string_view::npos || pair.substr(0, eq) != name) continue;
    std::string_view value = pair.substr(eq + 1);
    while (!value.empty() && value.back() == ' ') value.remove_suffix(1);
    return std::string(value);
  }
  return "";
}

std::string BearerToken(std::string_view authorization) {
  constexpr std::string_view kScheme = "Bearer ";
  if (authorization.size() <= kScheme.size()) return "";
  for (size_t i = 0; i < kScheme.size(); ++i) {
    const char a = authorization[i], b = kScheme[i];
    if ((a | 0x20) != (b | 0x20)) return "";
  }
  std::string_view token = authorization.substr(kScheme.size());
  while (!token.empty() && token.front() == ' ') token.remove_prefix(1);
  while (!token.empty() && token.back() == ' ') token.remove_suffix(1);
  return std::string(token);
}

bool IsTokenText(std::string_view text) {
  return text.size() >= 32 && text.size() <= 256 && std::all_of(text.begin(), text.end(), TokenChar);
}

bool SameSecret(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

bool SameOrigin(std::string_view origin, std::string_view scheme, std::string_view host_header) {
  if (host_header.empty() || origin.size() != scheme.size() + 3 + host_header.size()) return false;
  if (origin.substr(0, scheme.size()) != scheme || origin.substr(scheme.size(), 3) != "://") return false;
  const std::string_view host = origin.substr(scheme.size() + 3);
  for (size_t i = 0; i < host.size(); ++i) {
    const char a = host[i], b = host_header[i];
    if (a != b && !(((a | 0x20) == (b | 0x20)) && (a | 0x20) >= 'a' && (a | 0x20) <= 'z')) return false;
  }
  return true;
}

size_t HeadLength(std::string_view bytes) {
  const size_t crlf = bytes.find("\n\r\n"), lf = bytes.find("\n\n");
  if (crlf == std::string_view::npos && lf == std::string_view::npos) return std::string_view::npos;
  return crlf < lf ? crlf + 3 : lf + 2;
}

void RenameRangeHeaders(std::string& bytes, size_t head_length) {
  constexpr std::string_view kRange = "range:";
  const size_t end = std::min(head_length, bytes.size());
  // Each header begins after a line end; the request line before the first is none.
  for (size_t at = bytes.find('\n'); at != std::string::npos && at + 1 + kRange.size() <= end;
       at = bytes.find('\n', at + 1)) {
    bool range = true;
    for (size_t i = 0; i < kRange.size() && range; ++i)
      range = std::tolower(static_cast<unsigned char>(bytes[at + 1 + i])) == kRange[i];
    if (range) bytes[at + 1] = 'X';
  }
}

}  // namespace tdacli::explorer::web
