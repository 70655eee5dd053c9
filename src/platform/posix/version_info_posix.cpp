// The suite's components are Windows images; here their version resources are read by the portable
// PE reader, services are the control endpoints the siblings listen on, and names are matched without
// regard to case as the Windows file system does.
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/pe_version.h"
#include "platform/version_info.h"

namespace tdacli::platform {

std::string ControlEndpointPath(const std::string& app_folder, const std::string& service);

namespace {

class FileSource : public ByteSource {
 public:
  // Not blocking: a FIFO or device put in place of a component must not stall the agent; only a
  // regular file is read.
  explicit FileSource(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
    struct stat st {};
    if (fd_ >= 0 && fstat(fd_, &st) == 0 && S_ISREG(st.st_mode)) size_ = static_cast<uint64_t>(st.st_size);
  }
  ~FileSource() override {
    if (fd_ >= 0) close(fd_);
  }
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;
  bool ok() const { return fd_ >= 0 && size_ > 0; }
  uint64_t Size() const override { return size_; }
  bool Read(uint64_t offset, void* out, size_t n) override {
    if (offset > size_ || n > size_ - offset) return false;
    auto* p = static_cast<char*>(out);
    while (n > 0) {
      const ssize_t got = pread(fd_, p, n, static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;  // the file shrank under us
      p += got;
      n -= static_cast<size_t>(got);
      offset += static_cast<uint64_t>(got);
    }
    return true;
  }

 private:
  int fd_;
  uint64_t size_ = 0;
};

bool SameNoCase(const std::string& a, const char* b) {
  const size_t n = std::strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x >= 'a' && x <= 'z') x = static_cast<unsigned char>(x - 32);
    if (y >= 'a' && y <= 'z') y = static_cast<unsigned char>(y - 32);
    if (x != y) return false;
  }
  return true;
}

bool Exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

}  // namespace

bool ReadFileVersionStrings(const std::string& path, VersionStrings& out) {
  out = VersionStrings{};
  FileSource file(path);
  return file.ok() && ReadPeVersionStrings(file, out);
}

ServiceDetails QueryServiceDetails(const std::string& app_folder, const std::string& service) {
  ServiceDetails d;
  const std::string path = ControlEndpointPath(app_folder, service);
  struct stat st {};
  const bool present = stat(path.c_str(), &st) == 0;
  bool answers = false;
  if (present && path.size() < sizeof(sockaddr_un::sun_path)) {
    // A datagram endpoint accepts a connection only while a process is bound to it.
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      std::memcpy(a.sun_path, path.c_str(), path.size());
      answers = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
      close(fd);
    }
  }
  d.ok = true;
  d.state = answers ? "RUNNING" : "STOPPED";
  if (present) {
    std::vector<char> buf(16384);
    passwd pw{};
    passwd* found = nullptr;
    if (getpwuid_r(st.st_uid, &pw, buf.data(), buf.size(), &found) == 0 && found)
      d.account = found->pw_name;
    else
      d.account = std::to_string(st.st_uid);
  }
  d.description = "Service " + service + " (" + path + "): " + d.state + (d.account.empty() ? "" : ", " + d.account);
  return d;
}

std::string ResolvePathNoCase(const std::string& path) {
  if (path.empty() || Exists(path)) return path;
  // Component by component from the root (or the current folder), each matched exactly first, then
  // without regard to case among the folder's entries.
  std::string resolved;
  size_t start = 0;
  if (path[0] == '/') {
    resolved = "/";
    start = 1;
  }
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    const std::string part = path.substr(start, slash - start);
    start = slash + 1;
    if (part.empty()) continue;
    std::string candidate = resolved + part;
    if (!Exists(candidate)) {
      DIR* dir = opendir(resolved.empty() ? "." : resolved.c_str());
      if (!dir) return path;
      std::string match;
      while (dirent* e = readdir(dir)) {
        if (SameNoCase(part, e->d_name)) {
          match = e->d_name;
          break;
        }
      }
      closedir(dir);
      if (match.empty()) return path;
      candidate = resolved + match;
    }
    resolved = candidate;
    if (slash < path.size()) resolved += '/';
  }
  return resolved;
}

}  // namespace tdacli::platform
