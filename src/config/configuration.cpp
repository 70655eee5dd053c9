#include "config/configuration.h"

#include "common/files.h"
#include "common/text.h"
#include "service/agent.h"

namespace tdacli {

std::string ConfigurationPath(Agent& agent) { return agent.AppPath("TDRegInfo.TXT"); }

std::string ExpandLocalTemp(Agent& agent, const std::string& value) {
  std::string v = Lower(value);
  v = ReplaceAll(v, "c:\\%windir%\\", GetWindowsFolder(agent));
  v = ReplaceAll(v, "c:\\%appdir%\\", agent.app_folder);
  return v;
}

void LoadConfiguration(Agent& agent) {
  agent.settings = Settings{};
  const std::string path = ConfigurationPath(agent);
  if (!FileExists(path)) return;
  std::vector<std::string> lines;
  ReadLines(path, lines);
  Settings& s = agent.settings;
  for (const auto& line : lines) {
    auto p = line.find('=');
    if (p == std::string::npos || p + 1 >= line.size()) continue;
    const std::string key = line.substr(0, p), value = line.substr(p + 1);
    if (key == "Server") s.Server = value;
    else if (key == "Ext") s.Ext = value;
    else if (key == "LocalTemp") s.LocalTemp = value;
    else if (key == "SvrTemp") s.SvrTemp = value;
    else if (key == "CurrentUser") s.CurrentUser = value;
    else if (key == "CurrentEvent") s.CurrentEvent = value;
    else if (key == "UseTrace") s.UseTrace = value;
    else if (key == "NotificationMethod") s.NotificationMethod = value;
    else if (key == "ListeningPorts") s.ListeningPorts = value;
    else if (key == "PopEx") s.PopEx = value;
    else if (key == "PopWinName") s.PopWinName = value;
  }
  agent.windows_folder = GetWindowsFolder(agent);
  s.LocalTemp = ExpandLocalTemp(agent, s.LocalTemp);
}

}  // namespace tdacli
