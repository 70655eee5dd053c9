// Feeds arbitrary bytes to the allowed-consoles reader as the content of
// "TDACLI-AllowedConsoles.TXT", then checks what it found: every entry is a block with its host bits
// cleared, every malformed line quotes safely into a log line, and an entry written back as text
// parses to itself.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "listener/allowed_consoles.h"

using namespace tdacli::listener;

namespace {

std::string Dotted(uint32_t a) {
  return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." + std::to_string((a >> 8) & 255) +
         "." + std::to_string(a & 255);
}

int PrefixLength(uint32_t mask) {
  int n = 0;
  while (n < 32 && (mask & (0x80000000u >> n))) ++n;
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const ConsoleList list = ParseAllowedConsoles(text);
  if (list.blocks.size() + list.malformed.size() > size) __builtin_trap();

  for (const ConsoleBlock& b : list.blocks) {
    if ((b.network & ~b.mask) != 0) __builtin_trap();
    const int bits = PrefixLength(b.mask);
    // The mask is contiguous.
    if (bits < 32 && (b.mask << bits) != 0) __builtin_trap();
    const auto again = ParseConsoleEntry(Dotted(b.network) + "/" + std::to_string(bits));
    if (!again || !(*again == b)) __builtin_trap();
    if (!ConsoleAllowed(list.blocks, b.network)) __builtin_trap();
  }
  for (const MalformedConsoleLine& m : list.malformed) {
    if (m.number == 0 || m.text.empty()) __builtin_trap();
    const std::string quoted = QuoteConsoleLine(m.text);
    if (quoted.size() > kQuotedLineLength + 3) __builtin_trap();
    for (char c : quoted)
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) __builtin_trap();
  }

  // The first line as a peer address.
  const std::string first(text.substr(0, text.find_first_of("\r\n")));
  if (const auto a = ParseConsoleAddress(first)) {
    if (Dotted(*a) != first) __builtin_trap();
  }
  return 0;
}
