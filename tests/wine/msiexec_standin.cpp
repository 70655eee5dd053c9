// A stand-in for the system's installer, for the codec install under Wine: placed beside tdacli.exe
// as "MSIExec.exe", it is found before the system's own. It installs nothing; it writes the log file
// named after "/Log" with what it was given: its process id, whether it was asked to show its window
// hidden, and its arguments one per line.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int show) {
  STARTUPINFOA si{};
  si.cb = sizeof si;
  GetStartupInfoA(&si);
  const bool hidden = (si.dwFlags & STARTF_USESHOWWINDOW) != 0 && si.wShowWindow == SW_HIDE && show == SW_HIDE;
  std::string log_file;
  std::string text = "pid=" + std::to_string(GetCurrentProcessId()) + "\r\nhidden=" + (hidden ? "yes" : "no") + "\r\n";
  for (int i = 1; i < __argc; ++i) {
    text += std::string("arg=") + __argv[i] + "\r\n";
    if (std::string(__argv[i]) == "/Log" && i + 1 < __argc) log_file = __argv[i + 1];
  }
  if (log_file.empty()) return 1;
  FILE* f = std::fopen(log_file.c_str(), "wb");
  if (!f) return 2;
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);
  return 0;
}
