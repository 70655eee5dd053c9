#pragma once
// The files the agent writes: whole files written and flushed to the disk, appends, a rename that
// replaces its target in one step (and is flushed with its folder), and a delete that removes a file
// or a link itself but never a folder or what a link points to. The portable rooms build their saves
// on this facility; tests put one of their own in its place (a full disk, a process killed between
// two steps).
#include <string>
#include <string_view>

namespace tdacli::platform {

// What a file operation ran into, sorted the way the agent reports it.
enum class FileFault {
  kNone,
  kNotFound,      // no file of that name, or a folder of the path is missing
  kExists,        // a rename that may not replace found a file of the target's name
  kIsFolder,      // the name is a folder
  kAccessDenied,  // refused (permissions, a read-only medium, a link where a file was expected)
  kInUse,         // another program holds the file (Windows sharing)
  kDiskFull,      // no space (or quota) left on the disk
  kBadName,       // a name the system cannot take (too long, invalid characters)
  kIo,            // the device failed
  kOther,
};

struct FileResult {
  FileFault fault = FileFault::kNone;
  long system_code = 0;  // errno or GetLastError, for the record
  explicit operator bool() const { return fault == FileFault::kNone; }
};

// What a name is, the name itself looked at (a link is not followed).
enum class EntryKind { kMissing, kFile, kFolder, kLink, kOther };

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  virtual EntryKind Kind(const std::string& path) = 0;
  // Creates `path` (a file of that name is emptied; a link of that name is refused) and writes all
  // of `bytes`. A failed write or close counts as a failure. With `flush` the bytes are on the disk
  // before it returns (fsync, FlushFileBuffers).
  virtual FileResult Write(const std::string& path, std::string_view bytes, bool flush) = 0;
  // Appends `bytes` (the file is created when missing) and tells the file's size afterwards.
  virtual FileResult Append(const std::string& path, std::string_view bytes, long long& size_after) = 0;
  // Gives `source` the name `target` in one step: whoever opens `target` finds the old file or the
  // new one, never none and never a part. With `replace` false a file of the target's name is kept
  // and the rename fails (kExists). A read-only target is replaced as a forced delete would remove
  // it. With `durable` the new name is on the disk when it returns (the folder flushed;
  // MOVEFILE_WRITE_THROUGH).
  virtual FileResult Rename(const std::string& source, const std::string& target, bool replace, bool durable) = 0;
  // Removes a file, read-only or not, or a link itself; never a folder and never what a link points
  // to (its permissions are not touched either).
  virtual FileResult Remove(const std::string& path) = 0;
  // Reads at most `limit` bytes from the start of the file.
  virtual FileResult Read(const std::string& path, size_t limit, std::string& bytes) = 0;
};

// The running system's files. It holds no state: one serves every agent of the process.
FileSystem& SystemFileSystem();

}  // namespace tdacli::platform
