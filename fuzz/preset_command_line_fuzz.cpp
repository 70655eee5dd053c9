// Feeds arbitrary bytes as the command line of "tdacli.exe /msi-preset ..." to the installer switch's
// parser: a value it accepts never holds a control character or a quote and stays within its bound,
// and every CONSOLEHOSTS entry it accepts is an address or block the agent reads.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "service/preset_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const std::string& line : {std::string(text), "tdacli.exe /msi-preset " + std::string(text)}) {
    bool is_preset = false;
    std::string error;
    const auto values = tdacli::ParsePresetCommandLine(line, is_preset, error);
    if (values && !is_preset) __builtin_trap();
    if (!values) continue;
    for (const std::string* v : {&values->server, &values->ext, &values->listening_ports,
                                 &values->notification_method, &values->console_hosts}) {
      if (v->size() > tdacli::kPresetMaxValue) __builtin_trap();
      for (char c : *v)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '"') __builtin_trap();
    }
  }
  return 0;
}
