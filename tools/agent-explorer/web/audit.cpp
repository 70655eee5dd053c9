// The audit log: JSON lines appended, flushed and synced to the disk before the answer goes out.
#include "web/audit.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <nlohmann/json.hpp>

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

namespace tdacli::explorer::web {

namespace {

using Json = nlohmann::ordered_json;

// Hands what the C library buffered to the system, then waits until the system has written it.
bool SyncFile(std::FILE* f) {
  if (std::fflush(f) != 0) return false;
#ifdef _WIN32
  return _commit(_fileno(f)) == 0;
#else
  return fsync(fileno(f)) == 0;
#endif
}

}  // namespace

std::string AuditLine(const AuditEntry& e) {
  Json j;
  j["time"] = e.time;
  j["client"] = e.client;
  j["host"] = e.host;
  j["setting"] = e.setting;
  j["old"] = e.old_value;
  j["new"] = e.new_value;
  j["result"] = e.result;
  return j.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

bool AuditLog::Writable(std::string& error) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::FILE* f = std::fopen(path_.c_str(), "ab");
  if (!f) {
    error = std::strerror(errno);
    return false;
  }
  std::fclose(f);
  return true;
}

bool AuditLog::Append(const std::vector<AuditEntry>& entries, std::string& error) {
  if (entries.empty()) return true;
  std::string text;
  for (const AuditEntry& e : entries) text += AuditLine(e);
  std::lock_guard<std::mutex> lock(mutex_);
  std::FILE* f = std::fopen(path_.c_str(), "ab");
  if (!f) {
    error = std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(text.data(), 1, text.size(), f) == text.size() && SyncFile(f);
  if (!written) error = std::strerror(errno);
  const bool closed = std::fclose(f) == 0;
  if (written && !closed) error = std::strerror(errno);
  return written && closed;
}

std::string AuditLog::RecentJson() {
  std::string tail;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::FILE* f = std::fopen(path_.c_str(), "rb");
    if (f) {
      if (std::fseek(f, 0, SEEK_END) == 0) {
        const long size = std::ftell(f);
        const long from = size > static_cast<long>(kAuditPageBytes) ? size - static_cast<long>(kAuditPageBytes) : 0;
        if (size > 0 && std::fseek(f, from, SEEK_SET) == 0) {
          tail.resize(static_cast<size_t>(size - from));
          tail.resize(std::fread(tail.data(), 1, tail.size(), f));
          // A read that began inside a line starts at the next whole one.
          if (from > 0) tail.erase(0, tail.find('\n') == std::string::npos ? tail.size() : tail.find('\n') + 1);
        }
      }
      std::fclose(f);
    }
  }
  std::deque<std::string_view> lines;
  std::string_view rest = tail;
  while (!rest.empty()) {
    const size_t nl = rest.find('\n');
    lines.push_back(rest.substr(0, nl));
    rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
    if (lines.size() > kAuditPageLines) lines.pop_front();
  }
  std::string out = "[";
  bool first = true;
  for (std::string_view line : lines) {
    const Json j = Json::parse(line.begin(), line.end(), nullptr, false);
    if (j.is_discarded() || !j.is_object()) continue;
    if (!first) out += ',';
    first = false;
    out += j.dump(-1, ' ', true, Json::error_handler_t::replace);
  }
  return out + "]";
}

}  // namespace tdacli::explorer::web
