#include <algorithm>
#include <optional>

#include "explorer.h"

namespace tdacli::explorer {

namespace {

std::string ExpandLineBreaks(std::string_view text) {
  std::string out;
  size_t start = 0;
  for (;;) {
    const size_t p = text.find("{CRLF}", start);
    if (p == std::string_view::npos) break;
    out.append(text.substr(start, p - start));
    out += '\n';
    start = p + 6;
  }
  out.append(text.substr(start));
  return out;
}

std::string Readable(std::string_view text) { return VisibleNul(ExpandLineBreaks(text)); }

// The GETINFO fields in the order the agent sends them.
constexpr std::string_view kInfoTags[] = {"<PCName>",         "<NETUsername>",         "<WinName>",
                                          "<Extension>",      "<TD Server>",           "<Notification Method>",
                                          "<Listening Ports>", "<Pop4Ext>",            "<Pop4Win>"};

// Cuts a GETINFO reply at its known tags; nothing when a tag is missing or out of order.
std::optional<std::vector<std::string>> InfoValues(std::string_view reply) {
  constexpr std::string_view kHead = "|GETINFO|";
  if (reply.substr(0, kHead.size()) != kHead) return std::nullopt;
  std::vector<size_t> at;
  size_t from = kHead.size();
  for (std::string_view tag : kInfoTags) {
    const size_t p = reply.find(tag, from);
    if (p == std::string_view::npos) return std::nullopt;
    at.push_back(p);
    from = p + tag.size();
  }
  std::vector<std::string> values;
  for (size_t i = 0; i < at.size(); ++i) {
    const size_t begin = at[i] + kInfoTags[i].size();
    size_t end = i + 1 < at.size() ? at[i + 1] : reply.size();
    if (end > begin && reply[end - 1] == ';') --end;  // each field ends with ";"
    values.emplace_back(reply.substr(begin, end - begin));
  }
  return values;
}

struct Segment {
  std::string keyword;  // "|SETEXT|"
  std::string tag;      // "<Extension>"
  std::string value;    // without the ";"
};

// "|KEYWORD|<Tag>value;" pieces one after the other; nothing when the reply is not made of them.
std::optional<std::vector<Segment>> Segments(std::string_view reply) {
  std::vector<Segment> out;
  size_t i = 0;
  while (i < reply.size()) {
    if (reply[i] != '|') return std::nullopt;
    const size_t k = reply.find('|', i + 1);
    if (k == std::string_view::npos || k + 1 >= reply.size() || reply[k + 1] != '<') return std::nullopt;
    const size_t t = reply.find('>', k + 1);
    if (t == std::string_view::npos) return std::nullopt;
    const size_t semi = reply.find(';', t + 1);
    if (semi == std::string_view::npos) return std::nullopt;
    out.push_back({std::string(reply.substr(i, k + 1 - i)), std::string(reply.substr(k + 1, t - k)),
                   std::string(reply.substr(t + 1, semi - t - 1))});
    i = semi + 1;
  }
  if (out.empty()) return std::nullopt;
  return out;
}

}  // namespace

std::string DescribeControlResult(const std::string& service, int code, unsigned long error) {
  const std::string c = std::to_string(code), e = " (error " + std::to_string(error) + ")";
  switch (error) {
    case 0: return "code " + c + " sent to " + service;
    case 5: return "code " + c + " not sent: access to the service " + service + " denied" + e;
    case 1052: return "code " + c + " not sent: " + service + " does not accept this code" + e;
    case 1060: return "code " + c + " not sent: no service " + service + " is installed" + e;
    case 1061: return "code " + c + " not sent: " + service + " cannot accept control messages now" + e;
    case 1062: return "code " + c + " not sent: " + service + " is not running" + e;
    default: return "code " + c + " not sent to " + service + e;
  }
}

std::string VisibleNul(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == '\0')
      out += "\\0";
    else
      out += c;
  }
  return out;
}

std::string FormatReply(std::string_view reply) {
  if (auto values = InfoValues(reply)) {
    size_t width = 0;
    for (std::string_view tag : kInfoTags) width = std::max(width, tag.size());
    std::string out = "|GETINFO|\n";
    for (size_t i = 0; i < values->size(); ++i) {
      std::string tag(kInfoTags[i]);
      out += "  " + tag + std::string(width - tag.size() + 2, ' ') + Readable((*values)[i]) + "\n";
    }
    return out;
  }
  if (auto segments = Segments(reply)) {
    size_t kw = 0, tw = 0;
    for (const auto& s : *segments) {
      kw = std::max(kw, s.keyword.size());
      tw = std::max(tw, s.tag.size());
    }
    std::string out;
    for (const auto& s : *segments) {
      const bool failed = s.value == "Failed";
      out += failed ? ">>> " : "    ";
      out += s.keyword + std::string(kw - s.keyword.size() + 1, ' ');
      out += s.tag + std::string(tw - s.tag.size() + 1, ' ');
      out += failed ? "Failed; <<< FAILED" : Readable(s.value);
      out += "\n";
    }
    return out;
  }
  // "|LOGIN|<Status>..." and the like: the keyword and status tag on a line of their own.
  constexpr std::string_view kStatus = "<Status>";
  if (!reply.empty() && reply[0] == '|') {
    const size_t k = reply.find('|', 1);
    if (k != std::string_view::npos && reply.substr(k + 1, kStatus.size()) == kStatus) {
      std::string out = std::string(reply.substr(0, k + 1)) + " " + std::string(kStatus) + "\n";
      out += Readable(reply.substr(k + 1 + kStatus.size()));
      if (out.back() != '\n') out += '\n';
      return out;
    }
  }
  std::string out = Readable(reply);
  if (out.empty() || out.back() != '\n') out += '\n';
  return out;
}

}  // namespace tdacli::explorer
