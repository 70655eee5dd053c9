#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "platform/process_start.h"

extern char** environ;

namespace tdacli::platform {

unsigned long StartHiddenProcess(const std::string& command_line) {
  std::vector<std::string> args = SplitCommandLine(command_line);
  if (args.empty() || args[0].empty()) return 0;
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  // The child must not inherit what the agent set up for itself: the signals its host thread takes
  // (blocked in every thread) and the ignored SIGPIPE.
  posix_spawnattr_t attr;
  if (posix_spawnattr_init(&attr) != 0) return 0;
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGINT);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  // Nothing to read: the program runs unattended.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);

  pid_t pid = 0;
  const int rc = posix_spawnp(&pid, argv[0], &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (rc != 0 || pid <= 0) return 0;
  // Nobody waits for the program; this thread only collects its exit status so that no zombie stays.
  std::thread([pid] {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }).detach();
  return static_cast<unsigned long>(pid);
}

}  // namespace tdacli::platform
