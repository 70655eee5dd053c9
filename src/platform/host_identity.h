#pragma once
// What the agent learns about its host: computer names, adapter addresses, OS version, folders and the
// program's own file. Tests inject a fake.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tdacli::platform {

// An enabled network adapter: its interface index and its address list (as the system lists them).
struct Adapter {
  uint32_t index = 0;
  std::vector<std::string> addresses;
};

struct OsVersion {
  unsigned major = 0, minor = 0;
  bool known = false;  // false: not Windows (or the call failed)
};

class HostIdentity {
 public:
  virtual ~HostIdentity() = default;
  // Name formats 0-7 of the extended computer-name call; empty when unavailable.
  virtual std::string ComputerNameEx(int format) = 0;
  // Plain computer name and network user name, exactly as the system writes them into a 512-byte
  // buffer: including the terminating NUL.
  virtual std::string ComputerNameRaw() = 0;
  virtual std::string NetworkUserRaw() = 0;
  // The enabled adapters, in the order the system happens to list them (callers sort by index).
  virtual std::vector<Adapter> Adapters() = 0;
  virtual OsVersion Version() = 0;
  // The Windows folder; empty when unknown.
  virtual std::string WindowsDirectory() = 0;
};

// The program's own file.
struct ProcessInfo {
  std::string exe_path;       // full path of the executable
  std::string exe_folder;     // its folder, without a trailing separator
  std::string exe_base_name;  // base name without extension, as the system reports it
  std::string command_line;
  int file_revision = 0;      // revision of the program's own file version
};

ProcessInfo CurrentProcess();

}  // namespace tdacli::platform
