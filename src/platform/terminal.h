#pragma once
// The console's standard streams: whether standard error is a terminal (a progress line is written
// only there), and standard output in binary mode (CSV records end with CR LF, written as they stand).
namespace tdacli::platform {

bool StandardErrorIsTerminal();
// Windows: no LF to CR LF translation on standard output. Nothing to do elsewhere.
void SetStandardOutputBinary();

}  // namespace tdacli::platform
