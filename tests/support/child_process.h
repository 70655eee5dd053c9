#pragma once
// Tests that need a process of their own to end hard (a save cut short by TerminateProcess or
// SIGKILL) run this test program again as a child for one job: the job is registered under a name,
// and main() runs it instead of the tests when the command line is "--child=<name> <arguments...>".
#include <optional>
#include <string>
#include <vector>

namespace tdacli::testing {

// A job returns the child's exit status.
using ChildJob = int (*)(const std::vector<std::string>& args);

struct RegisterChildJob {
  RegisterChildJob(const char* name, ChildJob job);
};

// The child's exit status when the command line asks for a registered job; nothing otherwise.
std::optional<int> RunChildJob(int argc, char** argv);

struct ChildEnd {
  bool ended_hard = false;  // TerminateProcess(…, kEndedHardCode) or SIGKILL
  int status = 0;           // the exit code, or the wait status
};
inline constexpr int kEndedHardCode = 9;

// Runs this program as a child for the job `name` with `args` and waits for its end. Its standard
// output is dropped where the system allows it.
ChildEnd RunChildProcess(const std::string& name, const std::vector<std::string>& args);

// Ends the calling process at once, as a crash or a power cut would: nothing more runs in it.
[[noreturn]] void EndThisProcessHard();

}  // namespace tdacli::testing
