// Feeds arbitrary bytes to the settings file reader as the content of "TDRegInfo.TXT": the text parser
// and the bounded line-by-line file reader LoadConfiguration uses (inputs up to 1 MiB and more).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "common/files.h"
#include "config/configuration.h"

namespace {

const std::string& ScratchFile() {
  static const std::string path =
      (std::filesystem::temp_directory_path() / ("tdacli-settings-fuzz-" + std::to_string(std::random_device{}())))
          .string();
  return path;
}

}  // namespace

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

  // The file reader gives the same lines as the whole-text splitter, each cut at the line limit.
  if (FILE* f = std::fopen(ScratchFile().c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  std::vector<std::string> read;
  tdacli::ForEachLine(ScratchFile(), [&](std::string_view l) {
    if (l.size() > tdacli::kMaxFileLine) __builtin_trap();
    read.emplace_back(l);
    return true;
  });
  std::vector<std::string> split = tdacli::SplitLines(text);
  for (auto& l : split)
    if (l.size() > tdacli::kMaxFileLine) l.resize(tdacli::kMaxFileLine);
  if (read != split) __builtin_trap();
  return 0;
}
