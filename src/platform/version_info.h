#pragma once
// What the component report needs to know about the suite's files beside the agent: the strings of a
// file's version resource, the state and account of a service, and a file's path as the file system
// spells it.
#include <string>

namespace tdacli::platform {

// The eight standard strings of a version resource, for its first language/code-page pair; a missing
// key is empty.
struct VersionStrings {
  std::string CompanyName, FileDescription, FileVersion, InternalName, LegalCopyright, OriginalFilename,
      ProductName, ProductVersion;
};

// Reads the version resource of the file at `path`; false when the file is missing, is not an image
// with a version resource, or the resource has no translation. Windows asks the version API; elsewhere
// the portable reader of PE files does the same work.
bool ReadFileVersionStrings(const std::string& path, VersionStrings& out);

// State and account of a service of the suite.
struct ServiceDetails {
  bool ok = false;          // false: the service could not be queried (see `error`)
  std::string state;        // "STOPPED", "START_PENDING", ..., "PAUSED"; empty for another state
  std::string account;      // the configured start name
  std::string description;  // a longer text for people (not used by the report)
  std::string error;        // why the query failed
};

// Windows: the service control manager. Elsewhere: the service's control endpoint in `app_folder`
// ("RUNNING" while a process answers on it, "STOPPED" otherwise; the account owns the endpoint).
ServiceDetails QueryServiceDetails(const std::string& app_folder, const std::string& service);

// The path of an existing file or folder whose name matches `path` without regard to case, as
// Windows finds "TDACLI.EXE" for "tdacli.exe"; `path` itself when it exists as written or nothing
// matches. On Windows the file system does this already and `path` is returned unchanged.
std::string ResolvePathNoCase(const std::string& path);

}  // namespace tdacli::platform
