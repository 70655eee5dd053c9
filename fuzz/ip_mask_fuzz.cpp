// Feeds arbitrary bytes to the valid IP mask reader as the content of "TDIPMASK.INI", then matches
// the mask found against itself and against the input's first line as an address.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/local_host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string mask = tdacli::ParseIPMask(text);

  if (mask.find_first_of("\r\n") != std::string::npos) __builtin_trap();
  if (!mask.empty() && text.find("IPMask=" + mask) == std::string_view::npos) __builtin_trap();
  // Every non-empty piece of a mask occurs in the mask itself.
  const bool has_piece = mask.find_first_not_of(',') != std::string::npos;
  if (tdacli::MatchesIPMask(mask, mask) != has_piece) __builtin_trap();

  const std::string address(text.substr(0, text.find_first_of("\r\n")));
  (void)tdacli::MatchesIPMask(address, mask);
  (void)tdacli::LooksLikeIPv4(address);
  return 0;
}
