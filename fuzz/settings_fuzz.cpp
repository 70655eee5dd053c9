// Feeds arbitrary bytes to the settings file reader as the content of "TDRegInfo.TXT".
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "config/configuration.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const tdacli::Settings s = tdacli::ParseSettings(text);

  // Whatever was read must survive being written as a fresh file and read back: values never hold a
  // line break and are never empty.
  std::string fresh;
  for (const auto& line : tdacli::FreshConfigurationLines(s)) fresh += line + "\r\n";
  const tdacli::Settings back = tdacli::ParseSettings(fresh);
  if (back.Server != s.Server || back.Ext != s.Ext || back.LocalTemp != s.LocalTemp || back.SvrTemp != s.SvrTemp ||
      back.CurrentUser != s.CurrentUser || back.CurrentEvent != s.CurrentEvent || back.UseTrace != s.UseTrace ||
      back.NotificationMethod != s.NotificationMethod || back.ListeningPorts != s.ListeningPorts ||
      back.PopEx != s.PopEx || back.PopWinName != s.PopWinName)
    __builtin_trap();
  return 0;
}
