#include "common/file_errors.h"

#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace tdacli {

TrappedError FileOpenError(const std::string& path) {
  std::error_code ec;
  const fs::path p = fs::u8path(path);
  if (fs::is_directory(p, ec)) return {75, "Path/File access error"};
  const fs::path parent = p.parent_path();
  if (!parent.empty() && !fs::is_directory(parent, ec)) return {76, "Path not found"};
  return {70, "Permission denied"};
}

TrappedError FolderListError(const std::error_code& ec) {
  if (ec == std::errc::no_such_file_or_directory || ec == std::errc::not_a_directory) return {76, "Path not found"};
  if (ec == std::errc::permission_denied || ec == std::errc::operation_not_permitted) return {70, "Permission denied"};
  if (ec == std::errc::filename_too_long || ec == std::errc::invalid_argument) return {52, "Bad file name or number"};
  return {ec.value(), ec.message()};
}

TrappedError FileWriteFault(const platform::FileResult& result, const std::string& path) {
  switch (result.fault) {
    case platform::FileFault::kDiskFull: return {61, "Disk full"};
    case platform::FileFault::kBadName: return {52, "Bad file name or number"};
    case platform::FileFault::kIo: return {57, "Device I/O error"};
    default: return FileOpenError(path);
  }
}

TrappedError FileRenameFault(const platform::FileResult& result) {
  switch (result.fault) {
    case platform::FileFault::kExists: return {58, "File already exists"};
    case platform::FileFault::kDiskFull: return {61, "Disk full"};
    case platform::FileFault::kBadName: return {52, "Bad file name or number"};
    case platform::FileFault::kNotFound: return {76, "Path not found"};
    default: return {75, "Path/File access error"};
  }
}

}  // namespace tdacli
