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
#include "platform/file_system.h"

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
  platform::SystemFileSystem().Remove(path);
}

void DeleteFile(Workstation& agent, const std::string& path) {
  if (path.empty() || (agent.refuse_delete && agent.refuse_delete(path))) return;
  agent.file_system->Remove(path);
}

void MoveFile(Workstation& agent, const std::string& source, const std::string& destination) {
  // The pause is kept, but the destination is no longer deleted before it: it stays whole until the
  // rename replaces it.
  if (FileExists(destination)) agent.WaitSeconds(1);
  agent.file_system->Rename(source, destination, /*replace=*/true, /*durable=*/false);
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
  // The write and the close are checked: on a full disk the file opens, but its line cannot be written.
  const platform::FileResult written = agent.file_system->Write(test, "TEST FOR WRITE ACCESS\r\n", /*flush=*/false);
  if (!written) {
    const TrappedError error = FileWriteFault(written, test);
    // What was created of the test file goes again; a folder or link of its name was never ours.
    if (written.fault == platform::FileFault::kDiskFull || written.fault == platform::FileFault::kIo)
      agent.file_system->Remove(test);
    LogMessage(agent,
               "Error during 'CanWriteToFolder' Routine(): " + std::to_string(error.number) + "-" + error.description,
               "Error");
    return false;
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

std::string TemporaryNameBeside(const std::string& path) {
  const size_t cut = path.find_last_of(kSep == '\\' ? "/\\" : "/");
  const size_t start = cut == std::string::npos ? 0 : cut + 1;
  std::string name = path.substr(start);
  std::replace(name.begin(), name.end(), '.', '_');
  // Within the 255 characters a name may have: a cut name still belongs to this save alone, as
  // saves never overlap inside the agent.
  constexpr size_t kRoom = 255 - 7;
  if (name.size() > kRoom) name.resize(kRoom);
  return path.substr(0, start) + "~" + name + ".tdtmp";
}

bool SaveWholeFile(platform::FileSystem& files, const std::string& path, std::string_view content,
                   const WholeFileSave& how, TrappedError& error) {
  if (how.skip_equal && how.replace) {
    std::string now;
    // One byte more than the content: a longer file is not equal.
    if (files.Kind(path) == platform::EntryKind::kFile && files.Read(path, content.size() + 1, now) &&
        now == content)
      return true;
  }
  const std::string temporary = how.temporary.empty() ? TemporaryNameBeside(path) : how.temporary;
  // Whatever is under the temporary name goes first, so that the write always makes a new file: a
  // link goes itself (the write would refuse to follow it), and a leftover of an earlier save cut
  // short might still share its bytes with another name (a hard link left by a rename that could not
  // remove its old name), which writing over it would change too.
  const platform::EntryKind left = files.Kind(temporary);
  if (left == platform::EntryKind::kLink || left == platform::EntryKind::kFile) files.Remove(temporary);
  const platform::FileResult written = files.Write(temporary, content, how.flush);
  if (!written) {
    error = FileWriteFault(written, temporary);
    if (files.Kind(temporary) == platform::EntryKind::kFile) files.Remove(temporary);
    return false;
  }
  platform::FileResult renamed = files.Rename(temporary, path, how.replace, how.flush);
  if (!renamed && how.pause_before_retry && how.replace &&
      (renamed.fault == platform::FileFault::kInUse || renamed.fault == platform::FileFault::kAccessDenied) &&
      files.Kind(path) == platform::EntryKind::kFile) {
    how.pause_before_retry();
    renamed = files.Rename(temporary, path, how.replace, how.flush);
  }
  if (!renamed) {
    error = FileRenameFault(renamed);
    files.Remove(temporary);
    return false;
  }
  return true;
}

bool SaveWholeFile(LogSink& agent, const std::string& path, std::string_view content, const WholeFileSave& how,
                   TrappedError& error) {
  return SaveWholeFile(*agent.file_system, path, content, how, error);
}

bool FileStartsAndEndsWith(const std::string& path, std::string_view head, std::string_view tail) {
  std::ifstream f(fs::u8path(path), std::ios::binary);
  if (!f) return false;
  std::string got(head.size(), '\0');
  if (!f.read(got.data(), static_cast<std::streamsize>(got.size())) || got != head) return false;
  f.seekg(0, std::ios::end);
  const std::streamoff size = f.tellg();
  if (size < static_cast<std::streamoff>(head.size() + tail.size())) return false;
  f.seekg(size - static_cast<std::streamoff>(tail.size()));
  got.assign(tail.size(), '\0');
  return f.read(got.data(), static_cast<std::streamsize>(got.size())) && got == tail;
}

std::string JoinLines(const std::vector<std::string>& lines) {
  std::string all;
  for (const auto& l : lines) {
    all += l;
    all += "\r\n";
  }
  return all;
}

bool WriteTextFile(const std::string& path, std::string_view content) {
  TrappedError ignored;
  return SaveWholeFile(platform::SystemFileSystem(), path, content, {}, ignored);
}

bool WriteLines(const std::string& path, const std::vector<std::string>& lines) {
  return WriteTextFile(path, JoinLines(lines));
}

}  // namespace tdacli
