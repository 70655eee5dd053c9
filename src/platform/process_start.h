#pragma once
// Starting another program: with its window hidden, without waiting for it to end.
#include <string>
#include <string_view>
#include <vector>

namespace tdacli::platform {

// Splits a command line into its arguments: blanks and tabs separate them outside double quotes; a
// double quote starts or ends a quoted stretch and is dropped, so `"C:\My App\x.msi"` is one argument
// and `""` an empty one. Backslashes are ordinary characters (folders end in one before a quote).
std::vector<std::string> SplitCommandLine(std::string_view command_line);

// Starts `command_line` and returns at once with the new process's id, or 0 when it could not be
// started. Windows: CreateProcess with a hidden window, no handles inherited. Elsewhere: the line is
// split by SplitCommandLine and the first argument looked up on PATH (posix_spawnp); no shell is ever
// involved, so nothing in the line is interpreted. The finished child is reaped without the caller.
unsigned long StartHiddenProcess(const std::string& command_line);

}  // namespace tdacli::platform
