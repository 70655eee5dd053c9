#include <filesystem>
#include <system_error>

#include "platform/file_system.h"
#include "platform/platform.h"

namespace tdacli::platform {

bool FolderIsWritable(const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!fs::is_directory(fs::u8path(folder), ec)) return false;
  FileSystem& files = SystemFileSystem();
  std::string base = folder;
  if (base.empty() || (base.back() != '/' && base.back() != '\\')) base += static_cast<char>(fs::path::preferred_separator);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::string probe = base + "~tdacli-write-test-" + std::to_string(attempt) + ".tmp";
    if (files.Kind(probe) != EntryKind::kMissing) continue;
    // The write and the close count: a full disk lets the file be made but not written.
    const bool ok = static_cast<bool>(files.Write(probe, "x", /*flush=*/false));
    files.Remove(probe);
    return ok;
  }
  return false;
}

}  // namespace tdacli::platform
