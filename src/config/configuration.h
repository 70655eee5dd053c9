#pragma once
// The agent's settings file "TDRegInfo.TXT": loading with defaults, whole saves that keep hand-made
// lines, and per-setting saves that write the fresh thirteen-line file.
#include <string>
#include <string_view>
#include <vector>

#include "state/settings.h"

namespace tdacli {

class Agent;

void LoadConfiguration(Agent& agent);
bool SaveConfiguration(Agent& agent);
bool SaveExt(Agent& agent);
bool SaveServer(Agent& agent);
bool SaveNotificationMethod(Agent& agent);
bool SaveListeningPorts(Agent& agent);
bool SavePopEx(Agent& agent);
bool SavePopWinName(Agent& agent);

// One line of the settings file: "Key=value" with an exact, case-sensitive key and nothing trimmed.
// Lines without "=", with nothing after it, or with an unknown key change nothing.
void ApplySettingsLine(Settings& settings, std::string_view line);
// The settings a file of this text gives: the defaults, then every line in order (the last of a
// repeated key wins). `LocalTemp` is returned as written; the expansion needs the agent's folders.
Settings ParseSettings(std::string_view text);

// "c:\%windir%\" and "c:\%appdir%\" in a lower-cased local temp folder.
std::string ExpandLocalTemp(Agent& agent, const std::string& value);

// The fresh file: title, "[Config]" and the eleven settings in their fixed order.
std::vector<std::string> FreshConfigurationLines(const Settings& settings);

std::string ConfigurationPath(Agent& agent);

// Whether the temporary file of the settings file `path` ("TDRegInfo.tmp" beside "TDRegInfo.TXT") is
// whole: the title line first and CR LF last. Only such a one is taken when the settings file is
// missing.
bool IsWholeInterruptedSave(const std::string& path);

}  // namespace tdacli
