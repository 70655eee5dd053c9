#pragma once
// Why a file could not be opened, as a number and description in the style the agent's handlers log
// ("ERROR=76, DESC=Path not found"). Worked out from the disk after the failure, so every platform
// reports the same cause the same way.
#include <string>
#include <system_error>

#include "common/errors.h"

namespace tdacli {

// 76 "Path not found" (the folder is missing), 75 "Path/File access error" (the name is a folder),
// otherwise 70 "Permission denied".
TrappedError FileOpenError(const std::string& path);

// Why a folder could not be listed, from the system's error: 76 "Path not found" (missing, or not a
// folder), 70 "Permission denied", 52 "Bad file name or number" (a name the system cannot take, too
// long for instance); any other fault keeps the system's own number and text.
TrappedError FolderListError(const std::error_code& ec);

// 61 "Disk full": the file opened but the text could not be written.
TrappedError FileWriteError();

// Writes `content` into `path` (appending or replacing); on failure fills `error` and returns false.
bool WriteFileReporting(const std::string& path, const std::string& content, bool append, TrappedError& error);

}  // namespace tdacli
