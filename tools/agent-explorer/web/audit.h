#pragma once
// The audit log of the web console: one JSON object a line for every change sent to an agent (time,
// the client's address, host, setting, old value, new value, result), appended and flushed to the disk
// before the change's answer is returned.
#include <mutex>
#include <string>
#include <vector>

namespace tdacli::explorer::web {

struct AuditEntry {
  std::string time, client, host, setting, old_value, new_value, result;
};

// One line: {"time":..,"client":..,"host":..,"setting":..,"old":..,"new":..,"result":..} and "\n"
// (ASCII; every other character escaped).
std::string AuditLine(const AuditEntry& e);

// The lines kept of the log for the Audit page, and the most of the file's end that is read for them.
inline constexpr size_t kAuditPageLines = 1000;
inline constexpr size_t kAuditPageBytes = 4 << 20;

class AuditLog {
 public:
  explicit AuditLog(std::string path) : path_(std::move(path)) {}
  const std::string& path() const { return path_; }
  // Opens the file for appending (creating it) and closes it again: whether the console can record.
  bool Writable(std::string& error);
  // Appends the lines and waits until the system has them on the disk; false (and why) otherwise.
  bool Append(const std::vector<AuditEntry>& entries, std::string& error);
  // The last kAuditPageLines lines (from at most the last kAuditPageBytes of the file) as a JSON array,
  // newest last; lines that are no JSON object are left out.
  std::string RecentJson();

 private:
  std::string path_;
  std::mutex mutex_;
};

}  // namespace tdacli::explorer::web
