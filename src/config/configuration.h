#pragma once
// The agent's settings file "TDRegInfo.TXT": loading with defaults, whole saves that keep hand-made
// lines, and per-setting saves that write the fresh thirteen-line file.
#include <string>

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

// "c:\%windir%\" and "c:\%appdir%\" in a lower-cased local temp folder.
std::string ExpandLocalTemp(Agent& agent, const std::string& value);

std::string ConfigurationPath(Agent& agent);

}  // namespace tdacli
