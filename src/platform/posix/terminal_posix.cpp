#include <sys/resource.h>
#include <unistd.h>

#include "platform/terminal.h"

namespace tdacli::platform {

bool StandardErrorIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void SetStandardOutputBinary() {}

void AllowOpenSockets(size_t sockets) {
  rlimit lim{};
  if (getrlimit(RLIMIT_NOFILE, &lim) != 0) return;
  const rlim_t want = static_cast<rlim_t>(sockets) + 64;
  if (lim.rlim_cur >= want) return;
  lim.rlim_cur = lim.rlim_max == RLIM_INFINITY || lim.rlim_max > want ? want : lim.rlim_max;
  setrlimit(RLIMIT_NOFILE, &lim);
}

}  // namespace tdacli::platform
