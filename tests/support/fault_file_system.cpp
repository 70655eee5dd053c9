#include "support/fault_file_system.h"

namespace tdacli::testing {

namespace {

platform::FileResult DiskFull() {
  platform::FileResult r;
  r.fault = platform::FileFault::kDiskFull;
  return r;
}

}  // namespace

void FaultFileSystem::Step(const std::string& step) {
  steps.push_back(step);
  if (before) before(step);
}

platform::FileResult FaultFileSystem::Write(const std::string& path, std::string_view bytes, bool flush) {
  Step("Write " + path + (flush ? " flushed" : ""));
  if (Full(path)) {
    // The name still finds room in its folder; the bytes do not.
    real_.Write(path, "", false);
    return DiskFull();
  }
  if (flush) ++file_flushes;
  return real_.Write(path, bytes, flush);
}

platform::FileResult FaultFileSystem::Append(const std::string& path, std::string_view bytes, long long& size_after) {
  Step("Append " + path);
  if (Full(path)) {
    ++appends_refused;
    size_after = -1;
    return DiskFull();
  }
  return real_.Append(path, bytes, size_after);
}

platform::FileResult FaultFileSystem::Rename(const std::string& source, const std::string& target, bool replace,
                                             bool durable) {
  Step("Rename " + source + " -> " + target + (durable ? " durable" : ""));
  if (refuse_rename && refuse_rename(target)) {
    platform::FileResult r;
    r.fault = platform::FileFault::kAccessDenied;
    return r;
  }
  const platform::FileResult r = real_.Rename(source, target, replace, durable);
  if (r && durable) ++folder_flushes;
  return r;
}

platform::FileResult FaultFileSystem::Remove(const std::string& path) {
  Step("Remove " + path);
  return real_.Remove(path);
}

}  // namespace tdacli::testing
