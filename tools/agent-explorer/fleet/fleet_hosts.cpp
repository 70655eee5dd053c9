// The host list of a fleet run: names, addresses, blocks and host files, each host once.
#include <algorithm>
#include <cctype>
#include <unordered_set>

#include "fleet.h"

namespace tdacli::explorer::fleet {

namespace {

// An entry or file name as it may appear in an error message: control characters escaped, at most 80
// characters shown (an escape counts with its length).
std::string Shown(std::string_view text) {
  constexpr size_t kMax = 80;
  std::string shown;
  for (size_t i = 0; i < text.size(); ++i) {
    const std::string piece = EscapeControls(text.substr(i, 1));
    if (shown.size() + piece.size() > kMax) return shown + "...";
    shown += piece;
  }
  return shown;
}
std::string Quote(std::string_view entry) {
  std::string q(1, '"');
  q += Shown(entry);
  q += '"';
  return q;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

bool AllDigits(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A decimal number without sign or leading zeros, at most `max`.
std::optional<uint32_t> Number(std::string_view s, uint32_t max) {
  if (!AllDigits(s) || s.size() > 5 || (s.size() > 1 && s[0] == '0')) return std::nullopt;
  uint32_t v = 0;
  for (char c : s) v = v * 10 + static_cast<uint32_t>(c - '0');
  if (v > max) return std::nullopt;
  return v;
}

// Four decimal numbers 0-255 without leading zeros ("010.1.1.1" would read as octal elsewhere).
std::optional<uint32_t> Address(std::string_view s) {
  uint32_t a = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t dot = i < 3 ? s.find('.') : s.size();
    if (dot == std::string_view::npos) return std::nullopt;
    auto part = Number(s.substr(0, dot), 255);
    if (!part) return std::nullopt;
    a = (a << 8) | *part;
    s.remove_prefix(i < 3 ? dot + 1 : dot);
  }
  return a;
}

std::string Dotted(uint32_t a) {
  return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." + std::to_string((a >> 8) & 255) +
         "." + std::to_string(a & 255);
}

// A host name: labels of letters, digits and hyphens (1-63 characters, no hyphen at either end), at
// most 253 characters, not all digits and dots (that is an address, or a mistyped one).
bool HostName(std::string_view s) {
  if (s.empty() || s.size() > 253) return false;
  if (std::all_of(s.begin(), s.end(), [](char c) { return (c >= '0' && c <= '9') || c == '.'; })) return false;
  size_t start = 0;
  for (;;) {
    const size_t dot = s.find('.', start);
    const std::string_view label = s.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
    if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-') return false;
    for (char c : label)
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') return false;
    if (dot == std::string_view::npos) return true;
    start = dot + 1;
  }
}

class Collector {
 public:
  Collector(const FileReader& read_file, uint16_t default_port) : read_file_(read_file), default_port_(default_port) {}

  // One entry of the host list (`in_file`: a line of a host file, named in errors as `where`).
  bool Entry(std::string_view entry, const std::string& where) {
    const bool in_file = !where.empty();
    auto bad = [&](const std::string& why) {
      error_ = "--hosts: " + (in_file ? where + ": " : std::string()) + "bad entry " + Quote(entry) + " (" + why + ")";
      return false;
    };
    if (entry.front() == '@') {
      if (in_file) return bad("a host file cannot name another host file");
      return File(entry.substr(1), entry);
    }
    // HOST[:PORT] or BLOCK[:PORT]
    std::string_view target = entry;
    uint16_t port = default_port_;
    const size_t colon = entry.find(':');
    if (colon != std::string_view::npos) {
      target = entry.substr(0, colon);
      auto p = Number(entry.substr(colon + 1), 65535);
      if (!p || *p == 0) return bad("the port must be a number from 1 to 65535");
      port = static_cast<uint16_t>(*p);
    }
    if (target.empty()) return bad("no host");
    const size_t slash = target.find('/');
    if (slash != std::string_view::npos) {
      auto net = Address(target.substr(0, slash));
      if (!net) return bad("not an IPv4 block a.b.c.d/n");
      auto bits = Number(target.substr(slash + 1), 32);
      if (!bits) return bad("not an IPv4 block a.b.c.d/n");
      if (*bits < kWidestBlock) return bad("a block may be at most /" + std::to_string(kWidestBlock));
      return Block(*net, static_cast<int>(*bits), port) || bad(error_reason_);
    }
    if (auto a = Address(target)) return Add(Dotted(*a), port) || bad(error_reason_);
    if (!HostName(target)) return bad("not an IPv4 address or a host name");
    std::string name(target);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return Add(name, port) || bad(error_reason_);
  }

  bool File(std::string_view path, std::string_view entry) {
    if (path.empty()) {
      error_ = "--hosts: bad entry " + Quote(entry) + " (no file name after @)";
      return false;
    }
    const std::string name(path);
    std::optional<std::string> content = read_file_ ? read_file_(name) : std::nullopt;
    if (!content) {
      error_ = "--hosts: cannot read the host file " + Quote(name);
      return false;
    }
    if (content->size() > kMaxHostFileBytes) {
      error_ = "--hosts: the host file " + Quote(name) + " is larger than " + std::to_string(kMaxHostFileBytes) +
               " bytes";
      return false;
    }
    std::string_view text = *content;
    size_t line_number = 0;
    while (!text.empty()) {
      ++line_number;
      const size_t nl = text.find('\n');
      std::string_view line = text.substr(0, nl);
      text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
      const size_t hash = line.find('#');
      if (hash != std::string_view::npos) line = line.substr(0, hash);
      line = Trim(line);
      if (line.empty()) continue;
      if (!Entry(line, Shown(name) + " line " + std::to_string(line_number))) return false;
    }
    return true;
  }

  const std::string& error() const { return error_; }
  std::vector<Host> Take() { return std::move(hosts_); }

 private:
  bool Block(uint32_t net, int bits, uint16_t port) {
    const uint32_t mask = bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
    const uint32_t first = net & mask, last = first | ~mask;
    // The network and broadcast addresses are no workstations; /31 (two hosts) and /32 have neither.
    const uint32_t from = bits <= 30 ? first + 1 : first, to = bits <= 30 ? last - 1 : last;
    for (uint32_t a = from;; ++a) {
      if (!Add(Dotted(a), port)) return false;
      if (a == to) break;
    }
    return true;
  }

  bool Add(const std::string& name, uint16_t port) {
    if (++expanded_ > kMaxExpanded) {
      error_reason_ = "more than " + std::to_string(kMaxExpanded) + " addresses named in all";
      return false;
    }
    if (!seen_.insert(name + ":" + std::to_string(port)).second) return true;
    if (hosts_.size() == kMaxHosts) {
      error_reason_ = "more than " + std::to_string(kMaxHosts) + " hosts in all";
      return false;
    }
    hosts_.push_back({name, port});
    return true;
  }

  const FileReader& read_file_;
  uint16_t default_port_;
  std::vector<Host> hosts_;
  std::unordered_set<std::string> seen_;
  size_t expanded_ = 0;
  std::string error_, error_reason_;
};

}  // namespace

HostSpec ParseHostSpec(std::string_view list, const FileReader& read_file, uint16_t default_port) {
  HostSpec r;
  Collector c(read_file, default_port);
  while (!list.empty()) {
    const size_t comma = list.find(',');
    const std::string_view entry = Trim(list.substr(0, comma));
    list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
    if (entry.empty()) continue;
    if (!c.Entry(entry, "")) {
      r.error = c.error();
      return r;
    }
  }
  r.hosts = c.Take();
  if (r.hosts.empty()) {
    r.error = "--hosts: no host named";
    return r;
  }
  r.ok = true;
  return r;
}

}  // namespace tdacli::explorer::fleet
