#pragma once
// The files a pre-configured roll-out writes into the application folder at installation: the
// Windows Installer package runs the installed executable as
//   tdacli.exe /msi-preset "SERVER=..." "EXT=..." "LISTENINGPORTS=..." "NOTIFICATIONMETHOD=..." "CONSOLEHOSTS=..."
// An empty value is a property that was not given. The settings file is written, fresh and in the
// order the agent writes a fresh one, when any setting is given; the allowed-consoles list when
// CONSOLEHOSTS is given. An existing file is never touched.
#include <optional>
#include <string>
#include <string_view>

#include "platform/file_system.h"

namespace tdacli {

inline constexpr std::string_view kPresetSwitch = "/msi-preset";

// Exit codes of the switch (Windows error numbers, as the installer reports them).
inline constexpr int kPresetOk = 0;
inline constexpr int kPresetInvalidValue = 87;  // ERROR_INVALID_PARAMETER
inline constexpr int kPresetWriteFailed = 29;   // ERROR_WRITE_FAULT

// Longest value accepted for one property.
inline constexpr size_t kPresetMaxValue = 1024;

struct PresetValues {
  std::string server, ext, listening_ports, notification_method, console_hosts;
};

// The values after the switch; nothing when the command line is not this switch, an error text in
// `error` when it is but a value is not acceptable (a control character, an unknown key, too long).
std::optional<PresetValues> ParsePresetCommandLine(std::string_view command_line, bool& is_preset,
                                                   std::string& error);

// Writes the files into the folder (with its trailing separator); returns an exit code. `log`
// receives one line per file written or left alone. Both are the administrator's files: written
// whole beside their place, flushed to the disk, and put in place only where no file of the name is
// (never over one, even one that appears while they are written).
int WritePresetFiles(const std::string& app_folder, const PresetValues& values, std::string& log,
                     platform::FileSystem& files = platform::SystemFileSystem());

// The switch as the program's first step: nothing when the command line is not the switch, else the
// exit code of the process.
std::optional<int> RunPresetSwitch(std::string_view command_line, const std::string& exe_folder);

}  // namespace tdacli
