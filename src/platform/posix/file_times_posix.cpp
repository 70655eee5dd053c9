#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

#include "platform/file_times.h"

namespace tdacli::platform {

bool FileModifiedLocal(const std::string& path, LocalTime& out) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return false;
  tm t{};
  localtime_r(&st.st_mtime, &t);
  out = {t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
  return true;
}

bool SetFileModifiedLocal(const std::string& path, const LocalTime& lt) {
  tm t{};
  t.tm_year = lt.year - 1900;
  t.tm_mon = lt.month - 1;
  t.tm_mday = lt.day;
  t.tm_hour = lt.hour;
  t.tm_min = lt.minute;
  t.tm_sec = lt.second;
  t.tm_isdst = -1;
  time_t when = mktime(&t);
  if (when == static_cast<time_t>(-1)) return false;
  timeval tv[2] = {{when, 0}, {when, 0}};
  return utimes(path.c_str(), tv) == 0;
}

}  // namespace tdacli::platform
