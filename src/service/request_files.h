#pragma once
// Message request files: "*.TDACLI" files that other programs of the suite drop into the application
// folder, one request each, taken up by the request-file timer (`tmrMessage`) one per tick.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/errors.h"

namespace tdacli {

class Agent;

// Only this much of a request file is read: its one line is a short command.
inline constexpr size_t kRequestLineLimit = 4096;
// Ticks that start while this many requests are still in hand take nothing, so that a flood of
// requests that each wait (a login waits up to 90 s) cannot nest without end.
inline constexpr size_t kRequestsInHandLimit = 8;

// What a first line asks for.
struct RequestAction {
  enum Kind { kNone, kStop, kCode, kBadCode };
  Kind kind = kNone;
  int code = 0;        // kCode
  TrappedError error;  // kBadCode: why the rest of "Code=" is not a whole number
};

// The first line of a file's bytes: everything up to the first CR or LF (a file without a line end is
// one line, an empty file an empty line).
std::string FirstLine(std::string_view bytes);
// "STOP=MySelf" (exact) stops; "Code=" (exact case) followed by a whole number is a control code; any
// other line asks for nothing.
RequestAction ParseRequestLine(std::string_view line);
// Whether a name from the folder listing is a request file the agent may open: it ends in ".TDACLI"
// (any case, as the Windows listing matches it) and holds no separator, drive colon or control
// character, so the path built from it stays in the application folder.
bool IsRequestFileName(std::string_view name);

// One tick of the request-file timer (`tmrMessage`): the first request file in name order that no running tick is handling.
void tmrMessage_Timer(Agent& agent);

}  // namespace tdacli
