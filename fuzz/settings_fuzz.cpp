// Feeds arbitrary bytes to the settings file reader as the content of "TDRegInfo.TXT": the text parser
// and the bounded line-by-line file reader LoadConfiguration uses (inputs up to 1 MiB and more); then
// to the agent's save, as the file it finds and as the values it stores.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "common/files.h"
#include "config/configuration.h"
#include "fuzz_agent.h"
#include "service/wiring.h"

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
  // line break or a NUL and are never empty.
  std::string fresh;
  for (const auto& line : tdacli::FreshConfigurationLines(s)) fresh += line + "\r\n";
  const tdacli::Settings back = tdacli::ParseSettings(fresh);
  if (fresh.find('\0') != std::string::npos) __builtin_trap();
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

  // The agent's own save, with the input as the file it finds and its pieces (split at the byte 0x01)
  // as the values to store: no NUL reaches the file but in a line the file already held.
  static tdacli::fuzzing::FuzzAgent h("settings", 0);
  h.ResetFolder();
  std::ofstream(h.app / "TDRegInfo.TXT", std::ios::binary).write(text.data(), std::streamsize(text.size()));
  tdacli::Agent& agent = *h.agent;
  agent.startup_banner_written = true;
  tdacli::LoadConfiguration(agent);
  std::string tdacli::Settings::* const fields[] = {
      &tdacli::Settings::Server,     &tdacli::Settings::Ext,          &tdacli::Settings::LocalTemp,
      &tdacli::Settings::SvrTemp,    &tdacli::Settings::CurrentUser,  &tdacli::Settings::CurrentEvent,
      &tdacli::Settings::UseTrace,   &tdacli::Settings::NotificationMethod, &tdacli::Settings::ListeningPorts,
      &tdacli::Settings::PopEx,      &tdacli::Settings::PopWinName};
  size_t from = 0;
  for (auto field : fields) {
    if (from > text.size()) break;
    const size_t to = std::min(text.find('\x01', from), text.size());
    agent.settings.*field = std::string(text.substr(from, to - from));
    from = to + 1;
  }
  agent.stored_lines = {};
  tdacli::SaveConfiguration(agent);
  std::vector<std::string> before = split;
  std::sort(before.begin(), before.end());
  tdacli::ForEachLine((h.app / "TDRegInfo.TXT").string(), [&](std::string_view l) {
    if (l.find('\0') != std::string_view::npos && !std::binary_search(before.begin(), before.end(), std::string(l)))
      __builtin_trap();
    return true;
  });
  return 0;
}
