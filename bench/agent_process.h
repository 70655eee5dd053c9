#pragma once
// The real agent as a process of its own, for the benchmarks that measure it from outside: a copy of
// the program beside the benchmark in a fresh folder, with a settings file that names its listening
// port, started with no standard streams; stopped (SIGTERM) and its folder removed at the end.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/host_identity.h"

namespace tdacli::bench {

class AgentProcess {
 public:
  // `name` names the folder; `port` is the listening port the settings give.
  AgentProcess(const std::string& name, uint16_t port)
      : dir_(std::filesystem::temp_directory_path() / (name + "-" + std::to_string(getpid()))) {
    const std::string bin = platform::CurrentProcess().exe_folder;
    if (!std::filesystem::exists(bin + "/tdacli")) {
      std::fprintf(stderr, "tdacli not found beside the benchmark in %s\n", bin.c_str());
      return;
    }
    std::filesystem::create_directories(dir_);
    std::filesystem::copy_file(bin + "/tdacli", dir_ / "tdacli",
                               std::filesystem::copy_options::overwrite_existing);
    std::ofstream(dir_ / "TDRegInfo.TXT", std::ios::binary)
        << "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=1234\r\nServer=127.0.0.1\r\n"
           "ListeningPorts=1,"
        << port << ",2,3\r\n";
    ready_ = true;
  }
  ~AgentProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int status = 0;
      waitpid(pid_, &status, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  // False when the program was not found beside the benchmark.
  bool ready() const { return ready_; }
  const std::filesystem::path& dir() const { return dir_; }
  pid_t pid() const { return pid_; }

  // Starts the program in its folder (files it should find there are put in place before).
  void Start() {
    const std::string exe = (dir_ / "tdacli").string();
    pid_ = fork();
    if (pid_ == 0) {
      int null = open("/dev/null", O_RDWR);
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
      if (chdir(dir_.c_str()) != 0) _exit(127);
      execl(exe.c_str(), exe.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
  }

 private:
  std::filesystem::path dir_;
  bool ready_ = false;
  pid_t pid_ = -1;
};

// A figure of /proc/<pid>/status in kB ("VmRSS:", "VmHWM:"), or -1.
inline long StatusKb(pid_t pid, const std::string& key) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind(key, 0) == 0) return std::strtol(line.c_str() + key.size(), nullptr, 10);
  return -1;
}

// The process's open descriptors, or -1.
inline long CountFds(pid_t pid) {
  long n = 0;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
    ++n;
  return ec ? -1 : n;
}

}  // namespace tdacli::bench
