#include "listener/allowed_consoles.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include "common/files.h"
#include "common/logging.h"
#include "state/agent.h"

namespace tdacli::listener {

namespace {

namespace fs = std::filesystem;

std::string_view TrimBlanksAndTabs(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// One decimal number of 1 to `max_digits` digits without a leading zero, at most `max_value`.
std::optional<uint32_t> ParseSmallNumber(std::string_view s, size_t max_digits, uint32_t max_value) {
  if (s.empty() || s.size() > max_digits) return std::nullopt;
  if (s.size() > 1 && s.front() == '0') return std::nullopt;
  uint32_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<uint32_t>(c - '0');
  }
  if (v > max_value) return std::nullopt;
  return v;
}

// Reads at most `limit` + 1 bytes: one more than is used tells that the file is larger.
bool ReadBounded(const std::string& path, size_t limit, std::string& out) {
  std::ifstream f(fs::u8path(path), std::ios::binary);
  if (!f) return false;
  out.resize(limit + 1);
  f.read(out.data(), static_cast<std::streamsize>(out.size()));
  out.resize(static_cast<size_t>(f.gcount()));
  return true;
}

}  // namespace

std::optional<uint32_t> ParseConsoleAddress(std::string_view text) {
  uint32_t address = 0;
  for (int part = 0; part < 4; ++part) {
    const size_t dot = text.find('.');
    const bool last = part == 3;
    if (last != (dot == std::string_view::npos)) return std::nullopt;
    const auto octet = ParseSmallNumber(text.substr(0, last ? text.size() : dot), 3, 255);
    if (!octet) return std::nullopt;
    address = (address << 8) | *octet;
    if (!last) text.remove_prefix(dot + 1);
  }
  return address;
}

std::optional<ConsoleBlock> ParseConsoleEntry(std::string_view text) {
  const size_t slash = text.find('/');
  const auto address = ParseConsoleAddress(text.substr(0, slash));
  if (!address) return std::nullopt;
  uint32_t bits = 32;
  if (slash != std::string_view::npos) {
    const auto prefix = ParseSmallNumber(text.substr(slash + 1), 2, 32);
    if (!prefix) return std::nullopt;
    bits = *prefix;
  }
  ConsoleBlock b;
  b.mask = bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
  b.network = *address & b.mask;
  return b;
}

ConsoleList ParseAllowedConsoles(std::string_view text) {
  ConsoleList list;
  size_t number = 0;
  for (const std::string& raw : SplitLines(text)) {
    ++number;
    std::string_view line = raw;
    const size_t hash = line.find('#');
    if (hash != std::string_view::npos) line = line.substr(0, hash);
    line = TrimBlanksAndTabs(line);
    if (line.empty()) continue;
    if (auto block = ParseConsoleEntry(line)) {
      list.blocks.push_back(*block);
    } else {
      list.malformed.push_back({number, std::string(line)});
    }
  }
  return list;
}

bool ConsoleAllowed(const std::vector<ConsoleBlock>& blocks, uint32_t address) {
  for (const auto& b : blocks)
    if ((address & b.mask) == b.network) return true;
  return false;
}

std::string QuoteConsoleLine(std::string_view line) {
  std::string out;
  for (char c : line.substr(0, kQuotedLineLength)) {
    const auto u = static_cast<unsigned char>(c);
    out.push_back(u < 0x20 || u == 0x7F ? '?' : c);
  }
  if (line.size() > kQuotedLineLength) out += "...";
  return out;
}

void AllowedConsoles::Load(Agent& agent) {
  checked_ = true;
  last_check_ms_ = agent.clock().NowMs();
  std::string content;
  const bool present = ReadBounded(agent.AppPath(kAllowedConsolesFile), kAllowedConsolesMaxBytes, content);
  const bool truncated = content.size() > kAllowedConsolesMaxBytes;
  if (truncated) content.resize(kAllowedConsolesMaxBytes);
  if (present == present_ && content == content_) return;
  Apply(agent, present, std::move(content), truncated);
}

void AllowedConsoles::Refresh(Agent& agent) {
  // The request-file timer's interval: the file is looked at no more often than that timer ticks.
  const int interval = agent.request_file_timer.Interval() > 0 ? agent.request_file_timer.Interval() : 1000;
  if (checked_ && agent.clock().NowMs() - last_check_ms_ < interval) return;
  Load(agent);
}

void AllowedConsoles::Apply(Agent& agent, bool present, std::string content, bool truncated) {
  const bool was_present = present_;
  present_ = present;
  content_ = std::move(content);
  if (!present) {
    blocks_.clear();
    if (was_present)
      LogMessage(agent, std::string(kAllowedConsolesFile) + " has been removed: every console is served.", "Trace");
    return;
  }
  // A line cut by the size bound is not read as an entry.
  std::string_view text = content_;
  if (truncated) {
    const size_t end = text.find_last_of("\r\n");
    text = end == std::string_view::npos ? std::string_view() : text.substr(0, end + 1);
    LogMessage(agent,
               std::string(kAllowedConsolesFile) + " is larger than " + std::to_string(kAllowedConsolesMaxBytes) +
                   " bytes: the rest of it is ignored.",
               "Warning");
  }
  ConsoleList list = ParseAllowedConsoles(text);
  for (size_t i = 0; i < list.malformed.size() && i < kMalformedLinesLogged; ++i) {
    const auto& m = list.malformed[i];
    LogMessage(agent,
               "Skipped malformed line " + std::to_string(m.number) + " of " + kAllowedConsolesFile + ": [" +
                   QuoteConsoleLine(m.text) + "]",
               "Warning");
  }
  if (list.malformed.size() > kMalformedLinesLogged)
    LogMessage(agent,
               "Skipped " + std::to_string(list.malformed.size() - kMalformedLinesLogged) + " more malformed lines of " +
                   kAllowedConsolesFile,
               "Warning");
  blocks_ = std::move(list.blocks);
  LogMessage(agent,
             "Read " + std::string(kAllowedConsolesFile) + ": " + std::to_string(blocks_.size()) +
                 (blocks_.empty() ? " entries, every console is served." : " entries, other consoles are refused."),
             "Trace");
}

bool AllowedConsoles::Admit(Agent& agent, const std::string& peer_ip) {
  Refresh(agent);
  if (blocks_.empty()) return true;
  const auto address = ParseConsoleAddress(peer_ip);
  if (address && ConsoleAllowed(blocks_, *address)) return true;
  const int64_t now = agent.clock().NowMs();
  if (WarnAbout(peer_ip, now))
    LogMessage(agent,
               "Refused connection from " + QuoteConsoleLine(peer_ip) + ": the address is not listed in " +
                   kAllowedConsolesFile,
               "Warning");
  return false;
}

bool AllowedConsoles::WarnAbout(const std::string& peer_ip, int64_t now_ms) {
  auto it = last_warning_ms_.find(peer_ip);
  if (it != last_warning_ms_.end()) {
    if (now_ms - it->second < kRefusalWarningIntervalMs) return false;
    it->second = now_ms;
    return true;
  }
  if (last_warning_ms_.size() >= kRefusalWarningAddresses) {
    for (auto i = last_warning_ms_.begin(); i != last_warning_ms_.end();)
      i = now_ms - i->second >= kRefusalWarningIntervalMs ? last_warning_ms_.erase(i) : std::next(i);
    // Every remembered address was warned about within the hour: stay quiet rather than forget one
    // and warn about it twice.
    if (last_warning_ms_.size() >= kRefusalWarningAddresses) return false;
  }
  last_warning_ms_.emplace(peer_ip, now_ms);
  return true;
}

}  // namespace tdacli::listener
