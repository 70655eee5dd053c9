// The application folders of the fuzz targets. Every input starts from the same empty folder, so
// nothing an input leaves behind (logs that every input lengthens, task files, request files that the
// message timer lists at each tick) makes the inputs after it slower or changes what they do.
#pragma once

#include <filesystem>
#include <system_error>

namespace tdacli::fuzzing {

// Removes everything inside the folder and keeps the folder.
inline void EmptyFolder(const std::filesystem::path& folder) {
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator();
       it.increment(ec)) {
    std::error_code ignored;
    std::filesystem::remove_all(it->path(), ignored);
  }
}

}  // namespace tdacli::fuzzing
