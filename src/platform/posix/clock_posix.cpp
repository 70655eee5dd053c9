#include <time.h>

#include "platform/clock.h"

namespace tdacli::platform {

LocalTime SystemLocalTime() {
  time_t now = time(nullptr);
  tm t{};
  localtime_r(&now, &t);
  return {t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
}

}  // namespace tdacli::platform
