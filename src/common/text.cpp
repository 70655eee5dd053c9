#include "common/text.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace tdacli {

int SplitString(std::string_view text, std::string_view delimiter, std::vector<std::string>& parts) {
  parts.assign(1, std::string());
  if (text.empty()) return 0;
  if (delimiter.empty()) {
    parts.emplace_back(text);
    return 1;
  }
  size_t start = 0;
  for (;;) {
    size_t p = text.find(delimiter, start);
    if (p == std::string_view::npos) {
      parts.emplace_back(text.substr(start));
      break;
    }
    parts.emplace_back(text.substr(start, p - start));
    start = p + delimiter.size();
  }
  return static_cast<int>(parts.size() - 1);
}

std::string Lower(std::string_view s) {
  std::string r(s);
  for (auto& c : r) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return r;
}

std::string Upper(std::string_view s) {
  std::string r(s);
  for (auto& c : r) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return r;
}

std::string ReplaceAll(std::string_view s, std::string_view what, std::string_view with) {
  if (what.empty()) return std::string(s);
  std::string r;
  size_t start = 0;
  for (;;) {
    size_t p = s.find(what, start);
    if (p == std::string_view::npos) break;
    r.append(s.substr(start, p - start));
    r.append(with);
    start = p + what.size();
  }
  r.append(s.substr(start));
  return r;
}

std::string Mid(std::string_view s, size_t k) {
  if (k == 0) k = 1;
  if (k > s.size()) return "";
  return std::string(s.substr(k - 1));
}

std::string Left(std::string_view s, size_t n) { return std::string(s.substr(0, n)); }

std::string TrimBlanks(std::string_view s) {
  size_t a = s.find_first_not_of(' ');
  if (a == std::string_view::npos) return "";
  size_t b = s.find_last_not_of(' ');
  return std::string(s.substr(a, b - a + 1));
}

std::optional<long> ToLong(std::string_view s) {
  std::string t = TrimBlanks(s);
  // Decimal notation only: an optional sign, digits, optionally a point and more digits. Hexadecimal
  // ("0x1F40"), exponents and words such as "inf" are not numbers here, whatever strtod would take.
  size_t i = 0, digits = 0;
  if (i < t.size() && (t[i] == '+' || t[i] == '-')) ++i;
  for (; i < t.size() && t[i] >= '0' && t[i] <= '9'; ++i) ++digits;
  if (i < t.size() && t[i] == '.')
    for (++i; i < t.size() && t[i] >= '0' && t[i] <= '9'; ++i) ++digits;
  if (digits == 0 || i != t.size()) return std::nullopt;
  char* end = nullptr;
  double v = std::strtod(t.c_str(), &end);
  if (end != t.c_str() + t.size() || !std::isfinite(v)) return std::nullopt;
  // Whole-number conversion rounds halves to even, as the classic conversion does.
  double r = std::nearbyint(v);
  if (r < -2147483648.0 || r > 2147483647.0) return std::nullopt;
  return static_cast<long>(r);
}

std::optional<int16_t> ToInt16(std::string_view s) {
  auto v = ToLong(s);
  if (!v || *v < -32768 || *v > 32767) return std::nullopt;
  return static_cast<int16_t>(*v);
}

std::string FormatStamp(const platform::LocalTime& t) {
  int h12 = t.hour % 12;
  if (h12 == 0) h12 = 12;
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d %s", t.year, t.month, t.day, h12, t.minute,
                t.second, t.hour < 12 ? "AM" : "PM");
  return buf;
}

std::string FormatCompact(const platform::LocalTime& t) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02d", t.year, t.month, t.day, t.hour, t.minute,
                t.second);
  return buf;
}

}  // namespace tdacli
