#pragma once
// Why a file could not be opened, as a number and description in the style the agent's handlers log
// ("ERROR=76, DESC=Path not found"). Worked out from the disk after the failure, so every platform
// reports the same cause the same way.
#include <string>

#include "common/errors.h"

namespace tdacli {

// 76 "Path not found" (the folder is missing), 75 "Path/File access error" (the name is a folder),
// otherwise 70 "Permission denied".
TrappedError FileOpenError(const std::string& path);

// 61 "Disk full": the file opened but the text could not be written.
TrappedError FileWriteError();

// Writes `content` into `path` (appending or replacing); on failure fills `error` and returns false.
bool WriteFileReporting(const std::string& path, const std::string& content, bool append, TrappedError& error);

}  // namespace tdacli
