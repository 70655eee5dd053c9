#include <windows.h>

#include <vector>

#include "platform/process_start.h"

namespace tdacli::platform {

unsigned long StartHiddenProcess(const std::string& command_line) {
  if (command_line.empty()) return 0;
  // CreateProcess may write into the command line buffer.
  std::vector<char> line(command_line.begin(), command_line.end());
  line.push_back('\0');
  STARTUPINFOA si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESHOWWINDOW;
  si.wShowWindow = SW_HIDE;
  PROCESS_INFORMATION pi{};
  if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return 0;
  // Not waited for: the handles go at once, the process runs on.
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return pi.dwProcessId;
}

}  // namespace tdacli::platform
