#pragma once
// Last-modified times of files as local wall time (frame housekeeping ages files in calendar days).
#include <string>

#include "platform/clock.h"

namespace tdacli::platform {

// False when the file cannot be read.
bool FileModifiedLocal(const std::string& path, LocalTime& out);
// Sets a file's last-modified time, given as local wall time; false on failure.
bool SetFileModifiedLocal(const std::string& path, const LocalTime& t);

}  // namespace tdacli::platform
