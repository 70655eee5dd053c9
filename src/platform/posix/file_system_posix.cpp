#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "platform/file_system.h"

namespace tdacli::platform {

namespace {

FileResult Fault(int error) {
  FileResult r;
  r.system_code = error;
  switch (error) {
    case ENOENT: case ENOTDIR: r.fault = FileFault::kNotFound; break;
    case EEXIST: r.fault = FileFault::kExists; break;
    case EISDIR: r.fault = FileFault::kIsFolder; break;
    case EACCES: case EPERM: case EROFS: case ELOOP: r.fault = FileFault::kAccessDenied; break;
    case ETXTBSY: case EBUSY: r.fault = FileFault::kInUse; break;
    case ENOSPC: case EDQUOT: r.fault = FileFault::kDiskFull; break;
    case ENAMETOOLONG: case EINVAL: r.fault = FileFault::kBadName; break;
    case EIO: r.fault = FileFault::kIo; break;
    default: r.fault = FileFault::kOther; break;
  }
  return r;
}

FileResult LastFault() { return Fault(errno); }

// Writes everything, however the system splits it.
bool WriteAll(int fd, std::string_view bytes) {
  const char* p = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) {  // nothing taken and no reason given: as good as a full disk
      errno = ENOSPC;
      return false;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

// A close that reports a failure (a network file system's delayed write) fails the operation.
FileResult CloseReporting(int fd, FileResult so_far) {
  if (::close(fd) != 0 && so_far && errno != EINTR) return LastFault();
  return so_far;
}

std::string FolderOf(const std::string& path) {
  const size_t p = path.find_last_of('/');
  if (p == std::string::npos) return ".";
  if (p == 0) return "/";
  return path.substr(0, p);
}

// The folder's entry of a renamed file reaches the disk only when the folder itself is flushed.
// Some file systems cannot flush a folder (EINVAL): the rename has happened all the same.
void FlushFolder(const std::string& path) {
  const int fd = ::open(FolderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  while (::fsync(fd) != 0 && errno == EINTR) {
  }
  ::close(fd);
}

class PosixFileSystem final : public FileSystem {
 public:
  EntryKind Kind(const std::string& path) override {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return EntryKind::kMissing;
    if (S_ISLNK(st.st_mode)) return EntryKind::kLink;
    if (S_ISDIR(st.st_mode)) return EntryKind::kFolder;
    if (S_ISREG(st.st_mode)) return EntryKind::kFile;
    return EntryKind::kOther;
  }

  FileResult Write(const std::string& path, std::string_view bytes, bool flush) override {
    // O_NOFOLLOW: a link planted under the name never lets the agent write somewhere else.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) return LastFault();
    FileResult r;
    if (!WriteAll(fd, bytes)) r = LastFault();
    if (r && flush) {
      int rc;
      while ((rc = ::fsync(fd)) != 0 && errno == EINTR) {
      }
      if (rc != 0) r = LastFault();
    }
    return CloseReporting(fd, r);
  }

  FileResult Append(const std::string& path, std::string_view bytes, long long& size_after) override {
    size_after = -1;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) return LastFault();
    FileResult r;
    if (!WriteAll(fd, bytes)) r = LastFault();
    struct stat st {};
    if (r && ::fstat(fd, &st) == 0) size_after = static_cast<long long>(st.st_size);
    return CloseReporting(fd, r);
  }

  FileResult Rename(const std::string& source, const std::string& target, bool replace, bool durable) override {
    if (replace) {
      if (::rename(source.c_str(), target.c_str()) != 0) return LastFault();
    } else if (!RenameKeepingTarget(source, target)) {
      return LastFault();
    }
    if (durable) FlushFolder(target);
    return {};
  }

  FileResult Remove(const std::string& path) override {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return LastFault();
    if (S_ISDIR(st.st_mode)) return Fault(EISDIR);
    // unlink() removes a link itself and needs no write permission on the file: nothing is changed
    // on the file before it goes, so nothing a link points to is ever touched.
    if (::unlink(path.c_str()) != 0) return LastFault();
    return {};
  }

  FileResult Read(const std::string& path, size_t limit, std::string& bytes) override {
    bytes.clear();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return LastFault();
    FileResult r;
    char buf[65536];
    while (bytes.size() < limit) {
      const size_t want = std::min(sizeof buf, limit - bytes.size());
      const ssize_t n = ::read(fd, buf, want);
      if (n < 0) {
        if (errno == EINTR) continue;
        r = LastFault();
        break;
      }
      if (n == 0) break;
      bytes.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return r;
  }

 private:
  // rename() without replacing: renameat2's RENAME_NOREPLACE, or where the file system lacks it, a
  // hard link and the removal of the old name (link() never replaces either).
  static bool RenameKeepingTarget(const std::string& source, const std::string& target) {
#ifdef RENAME_NOREPLACE
    if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP) return false;
#endif
    if (::link(source.c_str(), target.c_str()) != 0) return false;
    ::unlink(source.c_str());
    return true;
  }
};

}  // namespace

FileSystem& SystemFileSystem() {
  static PosixFileSystem files;
  return files;
}

}  // namespace tdacli::platform
