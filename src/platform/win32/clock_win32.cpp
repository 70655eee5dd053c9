#include <windows.h>

#include "platform/clock.h"

namespace tdacli::platform {

LocalTime SystemLocalTime() {
  SYSTEMTIME t{};
  GetLocalTime(&t);
  return {t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond};
}

}  // namespace tdacli::platform
