#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "platform/platform.h"

namespace tdacli::platform {

bool FolderIsWritable(const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!fs::is_directory(fs::u8path(folder), ec)) return false;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const fs::path probe = fs::u8path(folder) / ("~tdacli-write-test-" + std::to_string(attempt) + ".tmp");
    if (fs::exists(probe, ec)) continue;
    bool ok = false;
    {
      std::ofstream f(probe, std::ios::binary);
      ok = static_cast<bool>(f << "x") && static_cast<bool>(f.flush());
    }
    fs::remove(probe, ec);
    return ok;
  }
  return false;
}

}  // namespace tdacli::platform
