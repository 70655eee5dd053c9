#pragma once
// File and folder helpers. None of them raises: a failed existence test is false, failed deletes and
// moves are silent, so callers that must be sure test afterwards.
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/errors.h"

namespace tdacli {

namespace platform {
class FileSystem;
}

class LogSink;
class Workstation;

bool FolderExists(std::string path);
bool FileExists(const std::string& path);
// Forced delete: read-only files go too. Only files: a folder of the name stays, and a link goes
// itself without its target being touched.
void DeleteFile(const std::string& path);
// Delete as seen by the agent, through its file system (tests can make a folder refuse deletions).
void DeleteFile(Workstation& agent, const std::string& path);
// Replaces an existing destination after a pause of one second (events run). The destination stays
// whole during the pause and is replaced in one step: it is never missing.
void MoveFile(Workstation& agent, const std::string& source, const std::string& destination);
std::string TrimAtNull(std::string_view text);
// Trailing blanks removed, then the separator appended unless it already ends in "/" or "\".
void EnsureTrailingSlash(std::string& path);
// The Windows folder with its trailing separator; empty when unknown.
std::string GetWindowsFolder(Workstation& agent);
// Creates every missing level of a folder path; appends the separator to the caller's text.
void EnsureFolder(LogSink& agent, std::string& path);
// Path text from outside must not reach the file system when it holds NUL (the OS call would stop
// there and act on another path) or any other control character.
bool HasControlCharacter(std::string_view text);
// A name built from outside values stays inside its folder: no separator of either system, no drive
// ":", no "." or ".." as the whole name, no control character.
bool IsSafeFileName(std::string_view name);
// Proves write access by writing and deleting a real file; the write and the close are checked, so a
// full disk fails ("61-Disk full").
bool CanWriteToFolder(Workstation& agent, const std::string& folder);

// How a whole file is saved (SaveWholeFile).
struct WholeFileSave {
  // The administrator's files (the settings, the console allow-list): the bytes are flushed to the
  // disk before the rename, and the rename with its folder after it. The files rebuilt at every login
  // are only written whole.
  bool flush = false;
  // False: a file of that name is never replaced (the save fails with 58 "File already exists").
  bool replace = true;
  // A file that already holds exactly these bytes is left as it is: no write and no flush.
  bool skip_equal = false;
  // The name the bytes are written under first, beside the file; empty: TemporaryNameBeside(path).
  std::string temporary;
  // When the file cannot be replaced because another program holds it (or the system refuses), this
  // runs once and the rename is tried once more after it.
  std::function<void()> pause_before_retry;
};

// Writes `content` as the whole file `path`: first into a temporary file beside it, then renamed over
// `path` in one step, so that whoever reads `path` finds the old file or the new one, never none and
// never a part. On failure the temporary file is removed, the old file is left whole and `error` says
// why (61 "Disk full" when the disk is full).
bool SaveWholeFile(platform::FileSystem& files, const std::string& path, std::string_view content,
                   const WholeFileSave& how, TrappedError& error);
// The same through the agent's file system.
bool SaveWholeFile(LogSink& agent, const std::string& path, std::string_view content, const WholeFileSave& how,
                   TrappedError& error);
// The temporary name beside a file: "~", the file's name with every "." as "_", then ".tdtmp" (for
// "SendFrames-7.TSF", "~SendFrames-7_TSF.tdtmp"). No pattern the suite's programs look for matches it
// ("*.TDACSC" request files, ".TSF" jobs, ".TVF" frames), and each file has its own, so a save cut
// short leaves at most one such file, which the next save of that file replaces.
std::string TemporaryNameBeside(const std::string& path);
// Whether the file starts with `head` and ends with `tail`, read without taking in what lies between.
bool FileStartsAndEndsWith(const std::string& path, std::string_view head, std::string_view tail);

// Whole-file text I/O. Lines end with CR LF when written; reading accepts CR LF, CR or LF.
bool ReadTextFile(const std::string& path, std::string& content);
std::vector<std::string> SplitLines(std::string_view content);
bool ReadLines(const std::string& path, std::vector<std::string>& lines);
// Reads a file line by line (CR LF, CR or LF) through a bounded buffer: a line longer than
// kMaxFileLine is cut there (its rest is skipped). on_line returns false to stop early. False when
// the file cannot be opened.
inline constexpr size_t kMaxFileLine = 65536;
bool ForEachLine(const std::string& path, const std::function<bool(std::string_view line)>& on_line);
// The lines, each followed by CR LF.
std::string JoinLines(const std::vector<std::string>& lines);
// Saves `content` whole (SaveWholeFile, not flushed) through the system's file system.
bool WriteTextFile(const std::string& path, std::string_view content);
// Saves the lines whole, each followed by CR LF.
bool WriteLines(const std::string& path, const std::vector<std::string>& lines);

}  // namespace tdacli
