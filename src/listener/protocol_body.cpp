#include "listener/protocol_body.h"

#include "common/text.h"

namespace tdacli::listener {

namespace {
constexpr std::string_view kBegin = "[BEGIN_PROTOCOL]";  // 16 characters
constexpr std::string_view kEnd = "[END_PROTOCOL]";      // 14 characters
}  // namespace

std::string ExtractProtocolBody(const std::string& text) {
  // Scanned from the end, so the last occurrence of each tag wins; positions are 1-based and only
  // those up to length - 13 are looked at.
  const std::string_view s(text);
  const long length = static_cast<long>(s.size());
  long begin_pos = 0, end_pos = 0;
  for (long i = length; i >= 1; --i) {
    if (i > length - 13) continue;
    const size_t at = static_cast<size_t>(i - 1);
    if (end_pos == 0 && s.substr(at, kEnd.size()) == kEnd) end_pos = i;
    if (begin_pos == 0 && s.substr(at, kBegin.size()) == kBegin) begin_pos = i;
  }
  std::string result = text;
  if (begin_pos != 0 && end_pos != 0 && begin_pos < end_pos) {
    const long body_length = end_pos - begin_pos - static_cast<long>(kBegin.size());
    // A negative length cannot be cut; the whole text then stays as the result.
    if (body_length >= 0)
      result = std::string(s.substr(static_cast<size_t>(begin_pos - 1) + kBegin.size(), static_cast<size_t>(body_length)));
  }
  result = ReplaceAll(result, kBegin, "");
  result = ReplaceAll(result, kEnd, "");
  return result;
}

}  // namespace tdacli::listener
