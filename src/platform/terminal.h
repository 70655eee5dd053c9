#pragma once
// What a console program needs of its process: whether standard error is a terminal (a progress line
// is written only there), standard output in binary mode (CSV records end with CR LF, written as they
// stand), and room for many sockets at once.
#include <cstddef>

namespace tdacli::platform {

bool StandardErrorIsTerminal();
// Windows: no LF to CR LF translation on standard output. Nothing to do elsewhere.
void SetStandardOutputBinary();
// Raises the process's limit of open descriptors, as far as the system allows, so that `sockets`
// connections fit beside the files and the loop's own descriptors. Windows has no such limit.
void AllowOpenSockets(size_t sockets);

}  // namespace tdacli::platform
