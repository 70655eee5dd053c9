// ExtractProtocolBody with arbitrary received text: it must never fail, and its result is never
// longer than its input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "listener/protocol_body.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string copy = text;
  const std::string body = tdacli::listener::ExtractProtocolBody(text);
  if (body.size() > text.size() || text != copy) std::abort();
  return 0;
}
