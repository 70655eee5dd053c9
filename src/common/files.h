#pragma once
// File and folder helpers. None of them raises: a failed existence test is false, failed deletes and
// moves are silent, so callers that must be sure test afterwards.
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tdacli {

class LogSink;
class Workstation;

bool FolderExists(std::string path);
bool FileExists(const std::string& path);
// Forced delete: read-only files go too.
void DeleteFile(const std::string& path);
// Delete as seen by the agent (tests can make a folder refuse deletions).
void DeleteFile(Workstation& agent, const std::string& path);
// Replaces an existing destination: deletes it and waits one second (events run) before moving.
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
// Proves write access by writing and deleting a real file.
bool CanWriteToFolder(Workstation& agent, const std::string& folder);

// Whole-file text I/O. Lines end with CR LF when written; reading accepts CR LF, CR or LF.
bool ReadTextFile(const std::string& path, std::string& content);
std::vector<std::string> SplitLines(std::string_view content);
bool ReadLines(const std::string& path, std::vector<std::string>& lines);
// Reads a file line by line (CR LF, CR or LF) through a bounded buffer: a line longer than
// kMaxFileLine is cut there (its rest is skipped). on_line returns false to stop early. False when
// the file cannot be opened.
inline constexpr size_t kMaxFileLine = 65536;
bool ForEachLine(const std::string& path, const std::function<bool(std::string_view line)>& on_line);
// Writes `content` as it is (no line ends added); `append` keeps what is there.
bool WriteTextFile(const std::string& path, std::string_view content, bool append = false);
// Writes the lines, each followed by CR LF.
bool WriteLines(const std::string& path, const std::vector<std::string>& lines, bool append = false);

}  // namespace tdacli
