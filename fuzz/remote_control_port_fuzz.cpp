// Arbitrary bytes as the content of "RC\TDACLM.INI" to ParseRemoteControlPort (used by
// ReadRemoteControlPort for the component report): the port is "(Unknown)" or the text behind
// "ServerPort=" on one line of the input, never empty and never holding a line break.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "listener/component_report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string port = tdacli::listener::ParseRemoteControlPort(text);
  if (port.empty() || port.find('\r') != std::string::npos || port.find('\n') != std::string::npos) std::abort();
  if (port != "(Unknown)" && text.find("ServerPort=" + port) == std::string_view::npos) std::abort();
  return 0;
}
