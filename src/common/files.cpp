#include "common/files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "common/file_errors.h"
#include "common/logging.h"
#include "common/paths.h"
#include "common/text.h"
#include "common/workstation.h"

namespace fs = std::filesystem;

namespace tdacli {

bool FolderExists(std::string path) {
  if (!path.empty() && (path.back() == kSep || path.back() == '\\')) path.pop_back();
  if (path.empty()) return false;
  // The C runtime reports a bare drive ("C:", left over from "C:\") as missing: test its root.
  if (kSep == '\\' && path.size() == 2 && path[1] == ':') path += kSep;
  std::error_code ec;
  return fs::is_directory(fs::u8path(path), ec);
}

bool FileExists(const std::string& path) {
  if (path.empty()) return false;
  std::error_code ec;
  return fs::is_regular_file(fs::u8path(path), ec);
}

void DeleteFile(const std::string& path) {
  if (path.empty()) return;
  std::error_code ec;
  auto p = fs::u8path(path);
  fs::permissions(p, fs::perms::owner_write, fs::perm_options::add, ec);
  fs::remove(p, ec);
}

void DeleteFile(Workstation& agent, const std::string& path) {
  if (agent.refuse_delete && agent.refuse_delete(path)) return;
  DeleteFile(path);
}

void MoveFile(Workstation& agent, const std::string& source, const std::string& destination) {
  if (FileExists(destination)) {
    DeleteFile(agent, destination);
    agent.WaitSeconds(1);
  }
  std::error_code ec;
  fs::rename(fs::u8path(source), fs::u8path(destination), ec);
}

std::string TrimAtNull(std::string_view text) {
  auto p = text.find('\0');
  return std::string(p == std::string_view::npos ? text : text.substr(0, p));
}

void EnsureTrailingSlash(std::string& path) {
  while (!path.empty() && path.back() == ' ') path.pop_back();
  if (path.empty() || (path.back() != '/' && path.back() != '\\')) path += kSep;
}

std::string GetWindowsFolder(Workstation& agent) {
  std::string w = TrimAtNull(agent.host().WindowsDirectory());
  if (w.empty()) return "";
  EnsureTrailingSlash(w);
  return w;
}

void EnsureFolder(LogSink& agent, std::string& path) {
  if (path.empty() || path.back() != kSep) path += kSep;
  size_t start = 0;
  while (!FolderExists(path)) {
    size_t pos = path.find(kSep, start);
    if (pos == std::string::npos) return;
    std::string with = path.substr(0, pos + 1);
    if (!FolderExists(with) && pos > 0) {
      std::error_code ec;
      fs::create_directory(fs::u8path(path.substr(0, pos)), ec);
      if (ec) {
        LogMessage(agent,
                   "Detected Error In EnsureFolder() Routine:" + std::to_string(ec.value()) + ", " +
                       ec.message(),
                   "Error");
        return;
      }
    }
    start = pos + 1;
  }
}

bool HasControlCharacter(std::string_view text) {
  for (unsigned char c : text)
    if (c < 32 || c == 127) return true;
  return false;
}

bool IsSafeFileName(std::string_view name) {
  if (name.empty() || name == "." || name == ".." || HasControlCharacter(name)) return false;
  return name.find_first_of("/\\:") == std::string_view::npos;
}

bool CanWriteToFolder(Workstation& agent, const std::string& folder) {
  const std::string name = agent.CurrentUserName() + FormatCompact(agent.Now()) + ".TXT";
  const std::string test = folder + kSep + name;
  // Refused before any file-system call: NUL or a control character would let the OS act on another
  // path than the one tested (52, as a bad name), and a user name that would lead out of the folder
  // fails as the OS reports a missing sub-folder (76).
  if (HasControlCharacter(folder) || HasControlCharacter(name)) {
    LogMessage(agent, "Error during 'CanWriteToFolder' Routine(): 52-Bad file name or number", "Error");
    return false;
  }
  if (!IsSafeFileName(name)) {
    LogMessage(agent, "Error during 'CanWriteToFolder' Routine(): 76-Path not found", "Error");
    return false;
  }
  {
    std::ofstream f(fs::u8path(test), std::ios::binary | std::ios::trunc);
    if (!f) {
      TrappedError error = FileOpenError(test);
      LogMessage(agent,
                 "Error during 'CanWriteToFolder' Routine(): " + std::to_string(error.number) + "-" + error.description,
                 "Error");
      return false;
    }
    f << "TEST FOR WRITE ACCESS\r\n";
  }
  DeleteFile(agent, test);
  if (FileExists(test)) {
    LogMessage(agent, "ERROR in CanWriteToFolder(): File Exits After Delete 1 [" + test + "]", "Error");
    return false;
  }
  return true;
}

bool ReadTextFile(const std::string& path, std::string& content) {
  std::ifstream f(fs::u8path(path), std::ios::binary);
  if (!f) return false;
  content.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  return true;
}

std::vector<std::string> SplitLines(std::string_view content) {
  std::vector<std::string> lines;
  size_t i = 0, start = 0;
  while (i < content.size()) {
    char c = content[i];
    if (c == '\r' || c == '\n') {
      lines.emplace_back(content.substr(start, i - start));
      if (c == '\r' && i + 1 < content.size() && content[i + 1] == '\n') ++i;
      start = i + 1;
    }
    ++i;
  }
  if (start < content.size()) lines.emplace_back(content.substr(start));
  return lines;
}

bool ReadLines(const std::string& path, std::vector<std::string>& lines) {
  std::string content;
  if (!ReadTextFile(path, content)) return false;
  lines = SplitLines(content);
  return true;
}

bool ForEachLine(const std::string& path, const std::function<bool(std::string_view line)>& on_line) {
  std::ifstream f(fs::u8path(path), std::ios::binary);
  if (!f) return false;
  std::string line;  // at most kMaxFileLine: the rest of a longer line is skipped
  bool after_cr = false;   // the last character was a CR: a following LF belongs to it
  bool pending = false;    // a line has begun (text after the last line end)
  std::vector<char> buf(kMaxFileLine);
  while (f) {
    f.read(buf.data(), static_cast<std::streamsize>(buf.size()));
    const char* p = buf.data();
    const char* const end = p + f.gcount();
    while (p < end) {
      if (after_cr && *p == '\n') {
        after_cr = false;
        ++p;
        continue;
      }
      after_cr = false;
      const char* stop = p;
      while (stop < end && *stop != '\r' && *stop != '\n') ++stop;
      if (stop > p) {
        pending = true;
        const size_t room = kMaxFileLine - line.size();
        line.append(p, std::min(room, static_cast<size_t>(stop - p)));
      }
      if (stop == end) break;
      after_cr = *stop == '\r';
      if (!on_line(line)) return true;
      line.clear();
      pending = false;
      p = stop + 1;
    }
  }
  if (pending) on_line(line);
  return true;
}

bool WriteTextFile(const std::string& path, std::string_view content, bool append) {
  std::ofstream f(fs::u8path(path), std::ios::binary | (append ? std::ios::app : std::ios::trunc));
  if (!f) return false;
  f.write(content.data(), static_cast<std::streamsize>(content.size()));
  return static_cast<bool>(f);
}

bool WriteLines(const std::string& path, const std::vector<std::string>& lines, bool append) {
  std::string all;
  for (const auto& l : lines) {
    all += l;
    all += "\r\n";
  }
  return WriteTextFile(path, all, append);
}

}  // namespace tdacli
