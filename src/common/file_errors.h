#pragma once
// Why a file could not be opened or written, as a number and description in the style the agent's
// handlers log ("ERROR=76, DESC=Path not found"). A missing folder, a folder in the file's place and
// a refusal are worked out from the disk after the failure, so every platform reports the same cause
// the same way; a full disk, a name the system cannot take and a failing device come from what the
// system said.
#include <string>
#include <system_error>

#include "common/errors.h"
#include "platform/file_system.h"

namespace tdacli {

// 76 "Path not found" (the folder is missing), 75 "Path/File access error" (the name is a folder),
// otherwise 70 "Permission denied".
TrappedError FileOpenError(const std::string& path);

// Why a folder could not be listed, from the system's error: 76 "Path not found" (missing, or not a
// folder), 70 "Permission denied", 52 "Bad file name or number" (a name the system cannot take, too
// long for instance); any other fault keeps the system's own number and text.
TrappedError FolderListError(const std::error_code& ec);

// Why `path` could not be written (created, written, flushed or closed): 61 "Disk full" (no space or
// quota left: ENOSPC, EDQUOT, ERROR_DISK_FULL, ERROR_HANDLE_DISK_FULL), 52 "Bad file name or number",
// 57 "Device I/O error", otherwise as FileOpenError.
TrappedError FileWriteFault(const platform::FileResult& result, const std::string& path);

// Why a written file could not be put in its place: 58 "File already exists" (a save that may not
// replace), 61 "Disk full", 52 "Bad file name or number", 76 "Path not found", otherwise 75
// "Path/File access error" (a folder of the name, a file held by another program, a refusal).
TrappedError FileRenameFault(const platform::FileResult& result);

}  // namespace tdacli
