#include <unistd.h>

#include "platform/terminal.h"

namespace tdacli::platform {

bool StandardErrorIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void SetStandardOutputBinary() {}

}  // namespace tdacli::platform
