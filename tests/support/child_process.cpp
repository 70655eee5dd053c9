#include "support/child_process.h"

#ifdef _WIN32
#include <process.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

#include <cerrno>
#include <cstdlib>
#include <map>

namespace tdacli::testing {

namespace {

std::map<std::string, ChildJob>& Jobs() {
  static std::map<std::string, ChildJob> jobs;
  return jobs;
}

constexpr const char* kChildSwitch = "--child=";

std::string SelfPath() {
#ifdef _WIN32
  char buf[MAX_PATH * 4];
  const DWORD n = GetModuleFileNameA(nullptr, buf, sizeof buf);
  return std::string(buf, n);
#else
  char buf[4096];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
#endif
}

}  // namespace

RegisterChildJob::RegisterChildJob(const char* name, ChildJob job) { Jobs()[name] = job; }

std::optional<int> RunChildJob(int argc, char** argv) {
  if (argc < 2) return std::nullopt;
  const std::string first = argv[1];
  if (first.rfind(kChildSwitch, 0) != 0) return std::nullopt;
  const auto it = Jobs().find(first.substr(std::string(kChildSwitch).size()));
  if (it == Jobs().end()) return 2;
  return it->second(std::vector<std::string>(argv + 2, argv + argc));
}

ChildEnd RunChildProcess(const std::string& name, const std::vector<std::string>& args) {
  const std::string self = SelfPath();
  std::vector<std::string> all = {self, kChildSwitch + name};
  all.insert(all.end(), args.begin(), args.end());
  ChildEnd end;
#ifdef _WIN32
  std::vector<std::string> quoted;
  for (const auto& a : all) quoted.push_back("\"" + a + "\"");
  std::vector<const char*> argv;
  for (const auto& a : quoted) argv.push_back(a.c_str());
  argv.push_back(nullptr);
  end.status = static_cast<int>(_spawnv(_P_WAIT, self.c_str(), argv.data()));
  end.ended_hard = end.status == kEndedHardCode;
#else
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t quiet;
  posix_spawn_file_actions_init(&quiet);
  posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, self.c_str(), &quiet, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&quiet);
  if (rc != 0) {
    end.status = -1;
    return end;
  }
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  end.status = wstatus;
  end.ended_hard = WIFSIGNALED(wstatus) && WTERMSIG(wstatus) == SIGKILL;
#endif
  return end;
}

void EndThisProcessHard() {
#ifdef _WIN32
  TerminateProcess(GetCurrentProcess(), kEndedHardCode);
#else
  raise(SIGKILL);
#endif
  std::abort();
}

}  // namespace tdacli::testing
