#include "service/preset_files.h"

#include <cstdio>
#include <vector>

#include "common/files.h"
#include "common/paths.h"
#include "config/configuration.h"
#include "listener/allowed_consoles.h"
#include "state/settings.h"

namespace tdacli {

namespace {

// Splits a command line into its pieces: a piece in double quotes runs to the next double quote (no
// escapes: the installer's own quoting), any other piece to the next blank.
std::vector<std::string_view> Pieces(std::string_view s) {
  std::vector<std::string_view> out;
  size_t i = 0;
  while (i < s.size()) {
    if (s[i] == ' ' || s[i] == '\t') {
      ++i;
      continue;
    }
    if (s[i] == '"') {
      const size_t end = s.find('"', i + 1);
      if (end == std::string_view::npos) {
        out.push_back(s.substr(i + 1));
        break;
      }
      out.push_back(s.substr(i + 1, end - i - 1));
      i = end + 1;
      // A quote that does not end the piece would glue two pieces together: keep them apart so that
      // the rest is refused as a piece of its own.
      continue;
    }
    size_t end = s.find_first_of(" \t", i);
    if (end == std::string_view::npos) end = s.size();
    out.push_back(s.substr(i, end - i));
    i = end;
  }
  return out;
}

// Control characters, and the quote that would let a value carry another piece of the command line.
bool HasControlOrQuote(std::string_view v) {
  return HasControlCharacter(v) || v.find('"') != std::string_view::npos;
}

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// The entries of CONSOLEHOSTS (comma-separated, blanks around an entry ignored); false when one of
// them is not an address or block the agent would accept.
bool ConsoleHostEntries(std::string_view list, std::vector<std::string>& entries, std::string& error) {
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(',', start);
    if (end == std::string_view::npos) end = list.size();
    const std::string_view entry = TrimBlanks(list.substr(start, end - start));
    if (!entry.empty()) {
      if (!listener::ParseConsoleEntry(entry)) {
        error = "CONSOLEHOSTS holds an entry that is not an IPv4 address or block: " + std::string(entry);
        return false;
      }
      entries.emplace_back(entry);
    }
    start = end + 1;
  }
  return true;
}

}  // namespace

std::optional<PresetValues> ParsePresetCommandLine(std::string_view command_line, bool& is_preset,
                                                   std::string& error) {
  is_preset = false;
  const auto pieces = Pieces(command_line);
  // Piece 0 is the program itself.
  if (pieces.size() < 2 || pieces[1] != kPresetSwitch) return std::nullopt;
  is_preset = true;
  PresetValues v;
  for (size_t i = 2; i < pieces.size(); ++i) {
    const std::string_view piece = pieces[i];
    const size_t eq = piece.find('=');
    if (eq == std::string_view::npos) {
      error = "not a property assignment: " + std::string(piece.substr(0, 64));
      return std::nullopt;
    }
    const std::string_view key = piece.substr(0, eq), value = piece.substr(eq + 1);
    // Values end up as lines of files the agent and its siblings read: no line breaks or other
    // control characters, and a sane length.
    if (HasControlOrQuote(value) || value.size() > kPresetMaxValue) {
      error = "unacceptable value for " + std::string(key.substr(0, 64));
      return std::nullopt;
    }
    std::string* field = nullptr;
    if (key == "SERVER") field = &v.server;
    else if (key == "EXT") field = &v.ext;
    else if (key == "LISTENINGPORTS") field = &v.listening_ports;
    else if (key == "NOTIFICATIONMETHOD") field = &v.notification_method;
    else if (key == "CONSOLEHOSTS") field = &v.console_hosts;
    if (!field) {
      error = "unknown property: " + std::string(key.substr(0, 64));
      return std::nullopt;
    }
    *field = std::string(value);
  }
  std::vector<std::string> entries;
  if (!ConsoleHostEntries(v.console_hosts, entries, error)) return std::nullopt;
  return v;
}

int WritePresetFiles(const std::string& app_folder, const PresetValues& values, std::string& log,
                     platform::FileSystem& files) {
  int rc = kPresetOk;
  WholeFileSave how;
  how.flush = true;
  how.replace = false;
  // A file that appeared while this one was written is left as it is, like one found before.
  auto save = [&](const std::string& path, const std::vector<std::string>& lines, const std::string& name) {
    TrappedError error;
    if (SaveWholeFile(files, path, JoinLines(lines), how, error)) {
      log += name + " written\n";
    } else if (error.number == 58) {
      log += name + " exists and is left as it is\n";
    } else {
      log += name + " could not be written\n";
      rc = kPresetWriteFailed;
    }
  };
  std::string folder = app_folder;
  if (folder.empty() || folder.back() != kSep) folder += kSep;

  if (!values.server.empty() || !values.ext.empty() || !values.listening_ports.empty() ||
      !values.notification_method.empty()) {
    const std::string path = folder + "TDRegInfo.TXT";
    if (FileExists(path)) {
      log += "TDRegInfo.TXT exists and is left as it is\n";
    } else if (IsWholeInterruptedSave(path)) {
      // The settings of an older version's save cut short: the agent takes them at its start.
      log += "TDRegInfo.tmp holds the settings of an interrupted save and is left for the agent\n";
    } else {
      Settings s;
      if (!values.server.empty()) s.Server = values.server;
      if (!values.ext.empty()) s.Ext = values.ext;
      if (!values.listening_ports.empty()) s.ListeningPorts = values.listening_ports;
      if (!values.notification_method.empty()) s.NotificationMethod = values.notification_method;
      save(path, FreshConfigurationLines(s), "TDRegInfo.TXT");
    }
  }

  std::vector<std::string> entries;
  std::string invalid;
  if (!ConsoleHostEntries(values.console_hosts, entries, invalid)) {
    log += invalid + "\n";
    return kPresetInvalidValue;
  }
  if (!entries.empty()) {
    const std::string path = folder + listener::kAllowedConsolesFile;
    if (FileExists(path)) {
      log += std::string(listener::kAllowedConsolesFile) + " exists and is left as it is\n";
    } else {
      std::vector<std::string> lines = {"# Consoles allowed on the command port (written at installation)"};
      lines.insert(lines.end(), entries.begin(), entries.end());
      save(path, lines, listener::kAllowedConsolesFile);
    }
  }
  return rc;
}

std::optional<int> RunPresetSwitch(std::string_view command_line, const std::string& exe_folder) {
  bool is_preset = false;
  std::string error;
  const auto values = ParsePresetCommandLine(command_line, is_preset, error);
  if (!is_preset) return std::nullopt;
  if (!values) {
    std::fprintf(stderr, "tdacli: %s\n", error.c_str());
    return kPresetInvalidValue;
  }
  std::string log;
  const int rc = WritePresetFiles(exe_folder, *values, log);
  std::fputs(log.c_str(), stderr);
  return rc;
}

}  // namespace tdacli
