#pragma once
// The optional list of hosts that may use the command port, "TDACLI-AllowedConsoles.TXT" in the
// application folder: one IPv4 address or CIDR block per line, "#" starts a comment. Without the file,
// or with no valid entry in it, every peer is served. With entries, any other peer is turned away
// before the greeting. The file is written by others: it is read with a size bound, and what it may
// make the agent log is bounded too.
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

inline constexpr const char* kAllowedConsolesFile = "TDACLI-AllowedConsoles.TXT";
// Only this much of the file is read: a list of consoles fits many times over.
inline constexpr size_t kAllowedConsolesMaxBytes = 65536;
// Malformed lines named in the log per reading of the file; the rest are counted in one line.
inline constexpr size_t kMalformedLinesLogged = 10;
// A refused address is logged at most once in this time.
inline constexpr int64_t kRefusalWarningIntervalMs = 60LL * 60 * 1000;
// Addresses remembered for that; when all are recent, further refusals of new addresses go unlogged.
inline constexpr size_t kRefusalWarningAddresses = 1024;
// Longest piece of a malformed line that is quoted in the log.
inline constexpr size_t kQuotedLineLength = 80;

struct ConsoleBlock {
  uint32_t network = 0;  // host order, host bits cleared
  uint32_t mask = 0;
  bool operator==(const ConsoleBlock&) const = default;
};

struct MalformedConsoleLine {
  size_t number = 0;  // from 1
  std::string text;   // as written, blanks trimmed
};

struct ConsoleList {
  std::vector<ConsoleBlock> blocks;
  std::vector<MalformedConsoleLine> malformed;
};

// A dotted IPv4 address: four decimal numbers 0 to 255 of one to three digits, no leading zeros (an
// address written "010.1.1.1" is ambiguous between decimal and octal readers, so it is refused).
std::optional<uint32_t> ParseConsoleAddress(std::string_view text);
// "a.b.c.d" or "a.b.c.d/n" (n 0 to 32); host bits of a block are ignored.
std::optional<ConsoleBlock> ParseConsoleEntry(std::string_view text);
// The file's content: comments and blank lines are skipped, every other line is one entry.
ConsoleList ParseAllowedConsoles(std::string_view text);
bool ConsoleAllowed(const std::vector<ConsoleBlock>& blocks, uint32_t address);
// A line as it may appear in a log line: control characters replaced, length bounded.
std::string QuoteConsoleLine(std::string_view line);

// The listener's view of the file.
class AllowedConsoles {
 public:
  // Reads the file now (start-up).
  void Load(Agent& agent);
  // Reads the file again when it changed; at most once per tick of the request-file timer.
  void Refresh(Agent& agent);
  // Whether a peer at this address is served. A refusal is logged as a warning, at most once per
  // address per hour.
  bool Admit(Agent& agent, const std::string& peer_ip);

  bool Active() const { return !blocks_.empty(); }
  const std::vector<ConsoleBlock>& Blocks() const { return blocks_; }

 private:
  void Apply(Agent& agent, bool present, std::string content, bool truncated);
  bool WarnAbout(const std::string& peer_ip, int64_t now_ms);

  bool checked_ = false;
  int64_t last_check_ms_ = 0;
  bool present_ = false;
  std::string content_;  // what was last read (at most kAllowedConsolesMaxBytes)
  std::vector<ConsoleBlock> blocks_;
  std::map<std::string, int64_t> last_warning_ms_;  // peer address -> time of its last warning
};

}  // namespace tdacli::listener
