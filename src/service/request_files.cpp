#include "service/request_files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

#include "common/file_errors.h"
#include "common/files.h"
#include "common/logging.h"
#include "common/text.h"
#include "service/control.h"
#include "state/agent.h"

namespace fs = std::filesystem;

namespace tdacli {

namespace {

constexpr std::string_view kExtension = ".TDACLI";

// Name order as the Windows listing gives it: letters compare without case, then byte by byte.
bool NameBefore(const std::string& a, const std::string& b) {
  const std::string ua = Upper(a), ub = Upper(b);
  return ua != ub ? ua < ub : a < b;
}

// The first request file in name order that is not in hand; one read of the folder.
std::optional<std::string> NextRequestFile(Agent& agent) {
  std::optional<std::string> best;
  std::error_code ec;
  fs::directory_iterator it(fs::u8path(agent.app_folder), ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    std::error_code ignored;
    // Links are left alone: the forced delete would change the permissions of what they point to.
    if (it->is_symlink(ignored) || !it->is_regular_file(ignored)) continue;
    std::string name = it->path().filename().string();
    if (!IsRequestFileName(name)) continue;
    const auto& hand = agent.requests.in_hand;
    if (std::find(hand.begin(), hand.end(), name) != hand.end()) continue;
    if (!best || NameBefore(name, *best)) best = std::move(name);
  }
  return best;
}

// Reads the first line; false with the error when the file cannot be read.
bool ReadFirstLine(const std::string& path, std::string& line, TrappedError& error) {
  std::ifstream f(fs::u8path(path), std::ios::binary);
  if (!f) {
    error = FileExists(path) ? FileOpenError(path) : TrappedError{53, "File not found"};
    return false;
  }
  std::string bytes(kRequestLineLimit, '\0');
  f.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (f.bad()) {
    error = {57, "Device I/O error"};
    return false;
  }
  bytes.resize(static_cast<size_t>(f.gcount()));
  line = FirstLine(bytes);
  return true;
}

// Keeps the file's name in hand while its tick runs, however the tick ends.
class InHand {
 public:
  InHand(Agent& agent, std::string name) : hand_(agent.requests.in_hand), name_(std::move(name)) {
    hand_.push_back(name_);
  }
  ~InHand() {
    auto it = std::find(hand_.begin(), hand_.end(), name_);
    if (it != hand_.end()) hand_.erase(it);
  }
  InHand(const InHand&) = delete;
  InHand& operator=(const InHand&) = delete;

 private:
  std::vector<std::string>& hand_;
  std::string name_;
};

void ProcessRequestFile(Agent& agent, const std::string& path) {
  std::string line;
  TrappedError error;
  RequestAction action;
  bool failed = !ReadFirstLine(path, line, error);
  if (!failed) {
    action = ParseRequestLine(line);
    if (action.kind == RequestAction::kBadCode) {
      failed = true;
      error = action.error;
    }
  }
  if (failed) {
    // The request is not carried out; the file goes all the same, so it never blocks those behind it.
    LogMessage(agent,
               "Error processing message request file (" + path + "), REC=" + line +
                   ", ERROR=" + std::to_string(error.number) + ", DESC=" + error.description,
               "Error");
    DeleteFile(agent, path);
    if (FileExists(path)) LogMessage(agent, "ERROR: File Exits After Delete 2 [" + path + "]", "Error");
    return;
  }

  if (action.kind == RequestAction::kStop) {
    LogMessage(agent, "Processed Message Request: " + line, "Trace");
    DeleteFile(agent, path);
    agent.EndProcess();  // at once, without the STOP banner
    return;
  }
  if (action.kind == RequestAction::kCode) {
    // Exactly as a service control request; a 128 waits here for the whole login chain.
    Service_Control(agent, action.code);
    if (agent.Ended()) return;
  }
  LogMessage(agent, "Processed Message Request: " + line, "Trace");
  DeleteFile(agent, path);
  if (FileExists(path)) LogMessage(agent, "ERROR: File Exits After Delete 1 [" + path + "]", "Error");
}

}  // namespace

std::string FirstLine(std::string_view bytes) {
  const size_t end = bytes.find_first_of("\r\n");
  return std::string(end == std::string_view::npos ? bytes : bytes.substr(0, end));
}

RequestAction ParseRequestLine(std::string_view line) {
  RequestAction action;
  if (line == "STOP=MySelf") {
    action.kind = RequestAction::kStop;
  } else if (line.size() > 5 && line.substr(0, 5) == "Code=") {
    const std::string_view rest = line.substr(5);
    if (auto code = ToLong(rest)) {
      action.kind = RequestAction::kCode;
      action.code = static_cast<int>(*code);
    } else {
      action.kind = RequestAction::kBadCode;
      // A number too large for a control code overflows; anything else is not a number at all.
      const std::string trimmed = TrimBlanks(rest);
      const bool numeric = !trimmed.empty() && trimmed.find_first_not_of("+-0123456789.eE") == std::string::npos &&
                           trimmed.find_first_of("0123456789") != std::string::npos;
      action.error = numeric ? TrappedError{6, "Overflow"} : TrappedError{13, "Type mismatch"};
    }
  }
  return action;
}

bool IsRequestFileName(std::string_view name) {
  if (name.size() < kExtension.size()) return false;
  if (Upper(name.substr(name.size() - kExtension.size())) != kExtension) return false;
  return IsSafeFileName(name);
}

void tmrMessage_Timer(Agent& agent) {
  if (agent.Ended()) return;
  // The timer runs on while a request waits (a control code may wait for replies that arrive as
  // request files themselves), so a tick may start inside another one.
  if (agent.requests.in_hand.size() >= kRequestsInHandLimit) return;
  std::optional<std::string> name = NextRequestFile(agent);
  if (!name) return;
  InHand hold(agent, *name);
  const std::string path = agent.app_folder + *name;
  const auto text = [&path](const TrappedError& e) {
    return "Error processing message request file (" + path + "), REC=, ERROR=" + std::to_string(e.number) +
           ", DESC=" + e.description;
  };
  if (!TrapAndLog(agent, text, [&] { ProcessRequestFile(agent, path); })) {
    DeleteFile(agent, path);
    if (FileExists(path)) LogMessage(agent, "ERROR: File Exits After Delete 2 [" + path + "]", "Error");
  }
}

}  // namespace tdacli
