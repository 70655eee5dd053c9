#include "config/configuration.h"

#include <algorithm>
#include <array>

#include "common/files.h"
#include "common/logging.h"
#include "common/text.h"
#include "state/agent.h"


namespace tdacli {

namespace {

constexpr const char* kTitleLine = "Tyndrel - Agent Client Configuration";

// The six keys a whole save rewrites, in the order their lines are tested and appended.
struct RewrittenKey {
  const char* key;
  std::string Settings::*field;
};
constexpr std::array<RewrittenKey, 6> kRewrittenKeys = {{
    {"SvrTemp=", &Settings::SvrTemp},
    {"LocalTemp=", &Settings::LocalTemp},
    {"UseTrace=", &Settings::UseTrace},
    {"PopEx=", &Settings::PopEx},
    {"PopWinName=", &Settings::PopWinName},
    {"ListeningPorts=", &Settings::ListeningPorts},
}};

// Entries 0 to 19 of the stored lines are written back; entry 20 only catches the 21st line.
constexpr size_t kWrittenStoredLines = 20;

std::string TemporaryPath(const std::string& path) { return ReplaceAll(path, ".TXT", ".tmp"); }

// Writes the settings file through the temporary file; returns the error description, or empty text.
std::string WriteConfiguration(Agent& agent) {
  const std::string target = ConfigurationPath(agent);
  const std::string temporary = TemporaryPath(target);
  if (FileExists(temporary)) DeleteFile(agent, temporary);

  Settings& cut = agent.settings;
  for (auto [name, field] : {std::pair{"Server", &Settings::Server}, {"Ext", &Settings::Ext},
                             {"LocalTemp", &Settings::LocalTemp}, {"SvrTemp", &Settings::SvrTemp},
                             {"CurrentUser", &Settings::CurrentUser}, {"CurrentEvent", &Settings::CurrentEvent},
                             {"UseTrace", &Settings::UseTrace}, {"NotificationMethod", &Settings::NotificationMethod},
                             {"ListeningPorts", &Settings::ListeningPorts}, {"PopEx", &Settings::PopEx},
                             {"PopWinName", &Settings::PopWinName}})
    CutAtLineBreak(agent, cut.*field, name);
  const Settings& s = agent.settings;
  std::vector<std::string> out;
  if (agent.stored_lines[0].empty()) {
    out = FreshConfigurationLines(s);
  } else {
    std::array<bool, kRewrittenKeys.size()> written{};
    for (size_t i = 0; i < kWrittenStoredLines; ++i) {
      const std::string& line = agent.stored_lines[i];
      if (line.empty()) continue;
      bool replaced = false;
      for (size_t k = 0; k < kRewrittenKeys.size() && !replaced; ++k) {
        if (!Contains(line, kRewrittenKeys[k].key)) continue;
        out.push_back(kRewrittenKeys[k].key + s.*kRewrittenKeys[k].field);
        written[k] = replaced = true;
      }
      if (!replaced) out.push_back(line);
    }
    for (size_t k = 0; k < kRewrittenKeys.size(); ++k)
      if (!written[k]) out.push_back(kRewrittenKeys[k].key + s.*kRewrittenKeys[k].field);
  }

  // Written whole beside the file under its temporary name, flushed to the disk, and renamed over the
  // file in one step with the folder flushed after it: the target is no longer deleted first, so at
  // every moment, also after a crash or a power cut, "TDRegInfo.TXT" is the old file or the new one.
  // A file that already holds these bytes (every login saves the same settings again) is left as it
  // is, which spares the flushes.
  WholeFileSave how;
  how.flush = true;
  how.skip_equal = true;
  how.temporary = temporary;
  // A file that another program of the suite holds open cannot be replaced on Windows: it gets the
  // second that the move always waited for a target it could not delete, events running, and one
  // more try.
  how.pause_before_retry = [&agent] { agent.WaitSeconds(1); };
  TrappedError error;
  if (!SaveWholeFile(agent, target, JoinLines(out), how, error)) return error.description;
  LogMessage(agent, "Wrote Login Settings to config file", "Trace");
  return "";
}

// Versions before this one deleted the settings file before they moved the temporary file into its
// place: one killed in between left only "TDRegInfo.tmp", and the next start came up on the defaults
// (another server, another console port). A whole temporary file (the title line first, CR LF last)
// is put in the settings file's place, with one Warning line; a part of one is never taken. Where it
// cannot be moved (a folder that cannot be written), it is read where it is: `path` names it then.
bool RecoverInterruptedSave(Agent& agent, std::string& path) {
  const std::string temporary = TemporaryPath(path);
  if (!IsWholeInterruptedSave(path)) return false;
  const bool moved = static_cast<bool>(agent.file_system->Rename(temporary, path, /*replace=*/false, /*durable=*/true));
  LogMessage(agent,
             "Settings file [" + path + "] was missing; recovered it from [" + temporary +
                 "], left whole by an interrupted save.",
             "Warning");
  if (!moved) path = temporary;
  return true;
}

// The per-setting saves: reload everything else from the file, keep the one new value, and write the
// fresh file (lines the program does not know are dropped).
bool SaveOneSetting(Agent& agent, std::string Settings::*field) {
  const std::string value = agent.settings.*field;
  LoadConfiguration(agent);
  agent.settings.*field = value;
  agent.stored_lines[0].clear();
  const std::string error = WriteConfiguration(agent);
  if (!error.empty()) {
    LogMessage(agent, "Error saving settings: " + error, "Error");
    return false;
  }
  return true;
}

}  // namespace

std::string ConfigurationPath(Agent& agent) { return agent.AppPath("TDRegInfo.TXT"); }

bool IsWholeInterruptedSave(const std::string& path) {
  const std::string temporary = TemporaryPath(path);
  return FileExists(temporary) && FileStartsAndEndsWith(temporary, std::string(kTitleLine) + "\r\n", "\r\n");
}

std::string ExpandLocalTemp(Agent& agent, const std::string& value) {
  // Lower-cased first so that the placeholders match in any case; the folders put in keep their own.
  std::string v = Lower(value);
  v = ReplaceAll(v, "c:\\%windir%\\", GetWindowsFolder(agent));
  v = ReplaceAll(v, "c:\\%appdir%\\", agent.app_folder);
  return v;
}

void ApplySettingsLine(Settings& s, std::string_view line) {
  const size_t p = line.find('=');
  if (p == std::string_view::npos || p + 1 >= line.size()) return;
  const std::string_view key = line.substr(0, p);
  // A NUL ends the value as a line break would: a value is never used as a host name or path with
  // a part behind it that other readers of the file do not see.
  std::string value(line.substr(p + 1));
  value.erase(std::min(value.find('\0'), value.size()));
  if (value.empty()) return;  // as a line that ends behind its "="
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

Settings ParseSettings(std::string_view text) {
  Settings s;
  for (const auto& line : SplitLines(text)) ApplySettingsLine(s, line);
  return s;
}

std::vector<std::string> FreshConfigurationLines(const Settings& s) {
  return {kTitleLine,
          "[Config]",
          "Ext=" + s.Ext,
          "Server=" + s.Server,
          "UseTrace=" + s.UseTrace,
          "LocalTemp=" + s.LocalTemp,
          "CurrentUser=" + s.CurrentUser,
          "CurrentEvent=" + s.CurrentEvent,
          "SvrTemp=" + s.SvrTemp,
          "NotificationMethod=" + s.NotificationMethod,
          "PopEx=" + s.PopEx,
          "PopWinName=" + s.PopWinName,
          "ListeningPorts=" + s.ListeningPorts};
}

void LoadConfiguration(Agent& agent) {
  agent.settings = Settings{};
  std::string path = ConfigurationPath(agent);
  // A missing file leaves the defaults; neither the Windows folder nor the local temp expansion is
  // touched then. Only a whole temporary file of an interrupted save is taken instead.
  if (!FileExists(path) && !RecoverInterruptedSave(agent, path)) return;
  // Read line by line: a huge file written by someone else costs a bounded buffer, not its size.
  Settings parsed;
  if (!ForEachLine(path, [&parsed](std::string_view line) {
        ApplySettingsLine(parsed, line);
        return true;
      }))
    return;
  agent.settings = std::move(parsed);
  agent.windows_folder = GetWindowsFolder(agent);
  agent.settings.LocalTemp = ExpandLocalTemp(agent, agent.settings.LocalTemp);
}

bool SaveConfiguration(Agent& agent) {
  const std::string path = ConfigurationPath(agent);
  if (FileExists(path)) {
    for (size_t i = 0; i < kWrittenStoredLines; ++i) agent.stored_lines[i].clear();
    // The table holds 21 lines; reading stops at the first line that does not fit.
    size_t i = 0;
    ForEachLine(path, [&](std::string_view line) {
      agent.stored_lines[i++] = std::string(line);
      return i < agent.stored_lines.size();
    });
  }
  const std::string error = WriteConfiguration(agent);
  if (!error.empty()) {
    LogMessage(agent, "Unable to write configuration information to file [" + path + "]: " + error, "Error");
    return false;
  }
  return true;
}

bool SaveExt(Agent& agent) { return SaveOneSetting(agent, &Settings::Ext); }
bool SaveServer(Agent& agent) { return SaveOneSetting(agent, &Settings::Server); }
bool SaveNotificationMethod(Agent& agent) { return SaveOneSetting(agent, &Settings::NotificationMethod); }
bool SavePopEx(Agent& agent) { return SaveOneSetting(agent, &Settings::PopEx); }
bool SavePopWinName(Agent& agent) { return SaveOneSetting(agent, &Settings::PopWinName); }

// Only the file: the listener's move to the new port and the notice to the siblings belong to whoever
// asked for the save (the console's SETLISTEN, the login server's LISTENPORTS).
bool SaveListeningPorts(Agent& agent) { return SaveOneSetting(agent, &Settings::ListeningPorts); }

}  // namespace tdacli
