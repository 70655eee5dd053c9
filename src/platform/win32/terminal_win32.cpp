#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <windows.h>

#include "platform/terminal.h"

namespace tdacli::platform {

bool StandardErrorIsTerminal() {
  // A console window; a pipe or a file (or a terminal emulated by a pipe) is not one.
  HANDLE h = GetStdHandle(STD_ERROR_HANDLE);
  DWORD mode = 0;
  return h != nullptr && h != INVALID_HANDLE_VALUE && GetFileType(h) == FILE_TYPE_CHAR && GetConsoleMode(h, &mode);
}

void SetStandardOutputBinary() { _setmode(_fileno(stdout), _O_BINARY); }

// Winsock sockets are not counted against a descriptor limit (the select() sets are sized for the
// whole build by FD_SETSIZE).
void AllowOpenSockets(size_t) {}

}  // namespace tdacli::platform
