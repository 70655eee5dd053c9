#include <windows.h>

#include "platform/file_times.h"

namespace tdacli::platform {

bool FileModifiedLocal(const std::string& path, LocalTime& out) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return false;
  FILETIME local{};
  SYSTEMTIME st{};
  if (!FileTimeToLocalFileTime(&data.ftLastWriteTime, &local) || !FileTimeToSystemTime(&local, &st)) return false;
  out = {st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond};
  return true;
}

bool SetFileModifiedLocal(const std::string& path, const LocalTime& t) {
  SYSTEMTIME st{};
  st.wYear = static_cast<WORD>(t.year);
  st.wMonth = static_cast<WORD>(t.month);
  st.wDay = static_cast<WORD>(t.day);
  st.wHour = static_cast<WORD>(t.hour);
  st.wMinute = static_cast<WORD>(t.minute);
  st.wSecond = static_cast<WORD>(t.second);
  FILETIME local{}, utc{};
  if (!SystemTimeToFileTime(&st, &local) || !LocalFileTimeToFileTime(&local, &utc)) return false;
  HANDLE h = CreateFileA(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  BOOL ok = SetFileTime(h, nullptr, nullptr, &utc);
  CloseHandle(h);
  return ok != 0;
}

}  // namespace tdacli::platform
