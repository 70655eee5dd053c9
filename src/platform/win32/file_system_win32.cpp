#include <windows.h>

#include <algorithm>
#include <string>

#include "platform/file_system.h"

namespace tdacli::platform {

namespace {

// Paths are UTF-8 throughout the agent, as the standard library's u8path takes them.
std::wstring Wide(const std::string& s) {
  if (s.empty()) return {};
  const int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
  std::wstring w(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), n);
  return w;
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// ERROR_DISK_QUOTA_EXCEEDED, which mingw-w64's headers do not name.
constexpr DWORD kDiskQuotaExceeded = 1295;

FileResult Fault(DWORD error) {
  FileResult r;
  r.system_code = static_cast<long>(error);
  switch (error) {
    case ERROR_FILE_NOT_FOUND: case ERROR_PATH_NOT_FOUND: case ERROR_INVALID_DRIVE: case ERROR_BAD_NETPATH:
      r.fault = FileFault::kNotFound; break;
    case ERROR_FILE_EXISTS: case ERROR_ALREADY_EXISTS: r.fault = FileFault::kExists; break;
    case ERROR_DIRECTORY: r.fault = FileFault::kIsFolder; break;
    case ERROR_ACCESS_DENIED: case ERROR_WRITE_PROTECT: case ERROR_CANT_ACCESS_FILE:
      r.fault = FileFault::kAccessDenied; break;
    case ERROR_SHARING_VIOLATION: case ERROR_LOCK_VIOLATION: case ERROR_USER_MAPPED_FILE:
      r.fault = FileFault::kInUse; break;
    case ERROR_DISK_FULL: case ERROR_HANDLE_DISK_FULL: case kDiskQuotaExceeded:
      r.fault = FileFault::kDiskFull; break;
    case ERROR_INVALID_NAME: case ERROR_BAD_PATHNAME: case ERROR_FILENAME_EXCED_RANGE:
      r.fault = FileFault::kBadName; break;
    case ERROR_CRC: case ERROR_GEN_FAILURE: case ERROR_IO_DEVICE: r.fault = FileFault::kIo; break;
    default: r.fault = FileFault::kOther; break;
  }
  return r;
}

FileResult LastFault() { return Fault(GetLastError()); }

DWORD Attributes(const std::wstring& path) { return GetFileAttributesW(path.c_str()); }

bool IsFolder(DWORD a) { return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY); }

// A read-only file refuses to be replaced or removed; the forced delete of the suite's file helpers
// takes the attribute off first. Never for a link: its own attributes are not what readers see.
bool ClearReadOnly(const std::wstring& path) {
  const DWORD a = Attributes(path);
  if (a == INVALID_FILE_ATTRIBUTES || (a & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ||
      !(a & FILE_ATTRIBUTE_READONLY))
    return false;
  return SetFileAttributesW(path.c_str(), a & ~FILE_ATTRIBUTE_READONLY) != 0;
}

bool WriteAll(HANDLE h, std::string_view bytes) {
  const char* p = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    const DWORD chunk = static_cast<DWORD>(std::min<size_t>(left, 1u << 30));
    DWORD written = 0;
    if (!WriteFile(h, p, chunk, &written, nullptr)) return false;
    if (written == 0) {
      SetLastError(ERROR_DISK_FULL);
      return false;
    }
    p += written;
    left -= written;
  }
  return true;
}

FileResult CloseReporting(HANDLE h, FileResult so_far) {
  if (!CloseHandle(h) && so_far) return LastFault();
  return so_far;
}

class Win32FileSystem final : public FileSystem {
 public:
  EntryKind Kind(const std::string& path) override {
    const DWORD a = Attributes(Wide(path));
    if (a == INVALID_FILE_ATTRIBUTES) return EntryKind::kMissing;
    if (a & FILE_ATTRIBUTE_REPARSE_POINT) return EntryKind::kLink;
    if (a & FILE_ATTRIBUTE_DIRECTORY) return EntryKind::kFolder;
    return EntryKind::kFile;
  }

  FileResult Write(const std::string& path, std::string_view bytes, bool flush) override {
    const std::wstring w = Wide(path);
    // CreateFileW would follow a link planted under the name: it is refused, as O_NOFOLLOW refuses
    // it on POSIX.
    const DWORD a = Attributes(w);
    if (a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_REPARSE_POINT) && !(a & FILE_ATTRIBUTE_DIRECTORY))
      return Fault(ERROR_CANT_ACCESS_FILE);
    HANDLE h = Create(w);
    if (h == INVALID_HANDLE_VALUE) {
      const DWORD error = GetLastError();
      // A folder of that name answers "access denied"; say what it is.
      if (error == ERROR_ACCESS_DENIED && IsFolder(Attributes(w))) return Fault(ERROR_DIRECTORY);
      if (error != ERROR_ACCESS_DENIED || !ClearReadOnly(w)) return Fault(error);
      h = Create(w);
      if (h == INVALID_HANDLE_VALUE) return LastFault();
    }
    FileResult r;
    if (!WriteAll(h, bytes)) r = LastFault();
    if (r && flush && !FlushFileBuffers(h)) r = LastFault();
    return CloseReporting(h, r);
  }

  FileResult Append(const std::string& path, std::string_view bytes, long long& size_after) override {
    size_after = -1;
    // The other programs of the suite append to the same host-wide trace and may read, empty or
    // delete it at any time.
    HANDLE h = CreateFileW(Wide(path).c_str(), FILE_APPEND_DATA, kShareAll, nullptr, OPEN_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return LastFault();
    FileResult r;
    if (!WriteAll(h, bytes)) r = LastFault();
    LARGE_INTEGER size{};
    if (r && GetFileSizeEx(h, &size)) size_after = size.QuadPart;
    return CloseReporting(h, r);
  }

  FileResult Rename(const std::string& source, const std::string& target, bool replace, bool durable) override {
    const std::wstring from = Wide(source), to = Wide(target);
    const DWORD flags = (replace ? MOVEFILE_REPLACE_EXISTING : 0) | (durable ? MOVEFILE_WRITE_THROUGH : 0);
    if (MoveFileExW(from.c_str(), to.c_str(), flags)) return {};
    const DWORD error = GetLastError();
    if (error == ERROR_ACCESS_DENIED && IsFolder(Attributes(to))) return Fault(ERROR_DIRECTORY);
    if (!replace || error != ERROR_ACCESS_DENIED || !ClearReadOnly(to)) return Fault(error);
    if (MoveFileExW(from.c_str(), to.c_str(), flags)) return {};
    return LastFault();
  }

  FileResult Remove(const std::string& path) override {
    const std::wstring w = Wide(path);
    const DWORD a = Attributes(w);
    if (a == INVALID_FILE_ATTRIBUTES) return LastFault();
    // Folders stay, links to folders (junctions) too: DeleteFileW would refuse them anyway.
    if (a & FILE_ATTRIBUTE_DIRECTORY) return Fault(ERROR_DIRECTORY);
    // A link to a file goes itself: DeleteFileW removes the link, not its target.
    if (DeleteFileW(w.c_str())) return {};
    const DWORD error = GetLastError();
    if (error != ERROR_ACCESS_DENIED || !ClearReadOnly(w)) return Fault(error);
    if (DeleteFileW(w.c_str())) return {};
    return LastFault();
  }

  FileResult Read(const std::string& path, size_t limit, std::string& bytes) override {
    bytes.clear();
    HANDLE h = CreateFileW(Wide(path).c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                           nullptr);
    if (h == INVALID_HANDLE_VALUE) return LastFault();
    FileResult r;
    char buf[65536];
    while (bytes.size() < limit) {
      const DWORD want = static_cast<DWORD>(std::min(sizeof buf, limit - bytes.size()));
      DWORD got = 0;
      if (!ReadFile(h, buf, want, &got, nullptr)) {
        r = LastFault();
        break;
      }
      if (got == 0) break;
      bytes.append(buf, got);
    }
    CloseHandle(h);
    return r;
  }

 private:
  // Another program may delete the file while it is written (as on POSIX): a delete that the open
  // handle refused would leave a file behind that the other program believes gone.
  static HANDLE Create(const std::wstring& path) {
    return CreateFileW(path.c_str(), GENERIC_WRITE, kShareAll, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
  }
};

}  // namespace

FileSystem& SystemFileSystem() {
  static Win32FileSystem files;
  return files;
}

}  // namespace tdacli::platform
