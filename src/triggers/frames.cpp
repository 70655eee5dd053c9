#include "triggers/frames.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "common/file_errors.h"
#include "common/files.h"
#include "common/logging.h"
#include "common/paths.h"
#include "common/text.h"
#include "platform/file_times.h"
#include "state/agent.h"

namespace fs = std::filesystem;

namespace tdacli {

namespace {

bool MatchesAny(const std::string& name, std::initializer_list<const char*> patterns) {
  const std::string upper = Upper(name);
  return std::any_of(patterns.begin(), patterns.end(), [&](const char* p) { return Contains(upper, p); });
}

// The files of a folder, by name, in the listing order; false with the fault when the folder cannot
// be listed. Links are left out: a link named like a frame is not a frame of the capture programs,
// and its age and deletion would be those of whatever it points to.
bool ListFiles(const std::string& folder, std::vector<std::string>& names, TrappedError& error) {
  std::error_code ec;
  fs::directory_iterator it(fs::u8path(folder), ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    std::error_code fec;
    if (!it->is_symlink(fec) && it->is_regular_file(fec)) names.push_back(it->path().filename().string());
  }
  if (ec) error = FolderListError(ec);
  return !ec;
}

}  // namespace

std::string FrameFolder(Agent& agent) {
  std::string f = agent.settings.LocalTemp;
  if (f.empty() || f.back() != kSep) f += kSep;
  return f + "100Screens";
}

void CleanupFrames(Agent& agent, const std::string& reason) {
  LogMessage(agent, "Cleaning up frame files!", "Trace");
  const std::string folder = FrameFolder(agent);
  std::vector<std::string> names;
  TrappedError error{};
  if (!ListFiles(folder, names, error)) {
    LogMessage(agent,
               "Detected Error In CleanupFrames() Routine:" + std::to_string(error.number) + ", " + error.description,
               "Error");
    return;
  }
  const platform::LocalTime now = agent.Now();
  const int64_t today = platform::DaysFromCivil(now.year, now.month, now.day);
  int analysed = 0, deleted = 0;
  for (const auto& name : names) {
    if (MatchesAny(name, {".TVF", ".TVF.ENC", ".TDK", ".CAM"})) {
      ++analysed;
      const std::string full = folder + kSep + name;
      platform::LocalTime modified;
      if (platform::FileModifiedLocal(full, modified)) {
        const int64_t age = today - platform::DaysFromCivil(modified.year, modified.month, modified.day);
        if (age >= agent.screen().max_age_days) {
          WriteTraceLine(agent,
                         "Deleting file (" + name + ") because it is (" + std::to_string(age) +
                             ") days old. Last Modified is (" + FormatStamp(modified) + ")",
                         "Trace");
          ++deleted;
          DeleteFile(agent, full);
          if (FileExists(full)) LogMessage(agent, "Error Deleting File! (" + full + ")", "Error");
        }
      }
    }
    agent.DoEvents();
  }
  LogMessage(agent,
             "The Tyndrel 100% Screen Capture Component Analyzed (" + std::to_string(analysed) +
                 ") Frame File(s) at (" + reason + ") and Deleted (" + std::to_string(deleted) + ").",
             "Information");
}

void WipeOut(Agent& agent) {
  if (!agent.login().LoginSucceeded) {
    LogMessage(agent, "The WIPE OUT Routine was skipped as the previous login did not succeed!", "Warning");
    return;
  }
  const std::string frames = FrameFolder(agent) + kSep;
  int first = 0, second = 0;
  // A folder that cannot be listed ends the routine with its error line; files already deleted stay
  // deleted.
  auto wipe = [&](const std::string& folder, std::initializer_list<const char*> patterns, int& count) {
    std::vector<std::string> names;
    TrappedError error{};
    if (!ListFiles(folder, names, error)) {
      LogMessage(agent,
                 "Error during 'WipeOut Routine': " + std::to_string(error.number) + " - " + error.description,
                 "Error");
      return false;
    }
    for (const auto& name : names) {
      if (MatchesAny(name, patterns)) {
        const std::string full = folder + name;
        DeleteFile(agent, full);
        if (FileExists(full))
          LogMessage(agent, "Error Wiping File! (" + full + ")", "Error");
        else
          ++count;
      }
      agent.DoEvents();
    }
    return true;
  };
  if (FolderExists(frames) && !wipe(frames, {".TVF", ".TVF.ENC", ".TFF.ENC", ".TFF", ".TDK", ".CAM"}, first))
    return;
  if (!wipe(agent.app_folder, {".TSF", ".TS2"}, second)) return;
  if (first > 0 || second >= 1) {
    LogMessage(agent, "The Tyndrel Agent Client removed all 100% Screen Activity!", "Information");
    LogMessage(agent, "The WIPE OUT Routine removed (" + std::to_string(first) + ") files from (" + frames + ")",
               "Information");
    LogMessage(agent,
               "The WIPE OUT Routine removed (" + std::to_string(second) + ") files from (" + agent.app_folder + ")",
               "Information");
  }
}

}  // namespace tdacli
