// Sends one control code the way agent-explorer's "control" command does, for the end-to-end runs of
// a tree that builds without the console client:
//   send_control control SERVICE CODE --app-dir DIR
// Prints the Windows error number (0 delivered); exits 0 when delivered.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/platform.h"

int main(int argc, char** argv) {
  std::string service, code, app_dir = ".";
  int positional = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--app-dir" && i + 1 < argc) {
      app_dir = argv[++i];
    } else if (positional == 0 && arg == "control") {
      ++positional;
    } else if (positional == 1) {
      service = arg;
      ++positional;
    } else if (positional == 2) {
      code = arg;
      ++positional;
    } else {
      std::fprintf(stderr, "usage: send_control control SERVICE CODE --app-dir DIR\n");
      return 2;
    }
  }
  if (positional != 3) {
    std::fprintf(stderr, "usage: send_control control SERVICE CODE --app-dir DIR\n");
    return 2;
  }
  auto client = tdacli::platform::MakeServiceControlClient(app_dir);
  const unsigned long error = client->SendControl(service, std::atoi(code.c_str()));
  std::printf("%lu\n", error);
  return error == 0 ? 0 : 1;
}
