// The 100% screen parameter line comes from the login server and is read back from a file that the
// capture programs share: any text must parse without a fault, keeping the fields in range.
#include <cstddef>
#include <cstdint>
#include <string>

#include "service/wiring.h"
#include "triggers/capture_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  tdacli::ScreenParams p;
  tdacli::ParseScreenParamLine(line, p);
  if (p.line != line) __builtin_trap();
  if (p.schedule.size() > 8) __builtin_trap();
  if (p.max_age_days < -32768 || p.max_age_days > 32767) __builtin_trap();
  // A schedule that makes a logoff delete frames is never set without the digit that gives their age.
  if ((p.schedule == "ATLOGOUT" || p.schedule == "AT-LOGIN") &&
      !(line.size() >= 16 && line[14] == ':' && line[15] >= '0' && line[15] <= '9'))
    __builtin_trap();
  return 0;
}
