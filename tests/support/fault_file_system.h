#pragma once
// The system's files with the faults a test chooses: a disk that is full for some paths, and a look
// at every step of a save before it is taken (to see what a crash at that moment would leave, or to
// end the process there).
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_system.h"

namespace tdacli::testing {

class FaultFileSystem : public platform::FileSystem {
 public:
  explicit FaultFileSystem(platform::FileSystem& real = platform::SystemFileSystem()) : real_(real) {}

  // The disk is full for the paths this accepts: a Write makes the file but cannot write into it, an
  // Append writes nothing; both fail with kDiskFull, as the system reports ENOSPC or ERROR_DISK_FULL.
  // Renames and removes need no room and go on.
  std::function<bool(const std::string& path)> full;
  void FullEverywhere() { full = [](const std::string&) { return true; }; }
  void SpaceBack() { full = nullptr; }

  // Renames onto the targets this accepts are refused (kAccessDenied), as in a folder that cannot be
  // written.
  std::function<bool(const std::string& target)> refuse_rename;

  // Called before each step that changes the disk, with its description: "Write <path>" (with
  // " flushed" when the bytes are flushed), "Append <path>", "Rename <from> -> <to>" (with
  // " durable"), "Remove <path>".
  std::function<void(const std::string& step)> before;

  std::vector<std::string> steps;  // every step that changed (or tried to change) the disk, in order
  int file_flushes = 0;
  int folder_flushes = 0;
  int appends_refused = 0;

  platform::EntryKind Kind(const std::string& path) override { return real_.Kind(path); }
  platform::FileResult Write(const std::string& path, std::string_view bytes, bool flush) override;
  platform::FileResult Append(const std::string& path, std::string_view bytes, long long& size_after) override;
  platform::FileResult Rename(const std::string& source, const std::string& target, bool replace,
                              bool durable) override;
  platform::FileResult Remove(const std::string& path) override;
  platform::FileResult Read(const std::string& path, size_t limit, std::string& bytes) override {
    return real_.Read(path, limit, bytes);
  }

 private:
  void Step(const std::string& step);
  bool Full(const std::string& path) const { return full && full(path); }

  platform::FileSystem& real_;
};

}  // namespace tdacli::testing
