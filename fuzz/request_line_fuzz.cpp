// Feeds arbitrary bytes as the content of a "*.TDACLI" request file to the line handler: the first
// line as the tick reads it (at most the read limit), then the action it asks for.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "service/request_files.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tdacli::RequestAction;
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (bytes.size() > tdacli::kRequestLineLimit) bytes = bytes.substr(0, tdacli::kRequestLineLimit);
  const std::string line = tdacli::FirstLine(bytes);

  // The line never holds a line end (it is logged as one trace line) and is a prefix of the content.
  if (line.find_first_of("\r\n") != std::string::npos) __builtin_trap();
  if (bytes.substr(0, line.size()) != line) __builtin_trap();

  const RequestAction action = tdacli::ParseRequestLine(line);
  switch (action.kind) {
    case RequestAction::kStop:
      if (line != "STOP=MySelf") __builtin_trap();
      break;
    case RequestAction::kCode:
    case RequestAction::kBadCode:
      // Only the exact-case prefix with something behind it is a control code.
      if (line.size() <= 5 || line.compare(0, 5, "Code=") != 0) __builtin_trap();
      if (action.kind == RequestAction::kBadCode && action.error.number != 13 && action.error.number != 6)
        __builtin_trap();
      break;
    case RequestAction::kNone:
      if (line == "STOP=MySelf" || (line.size() > 5 && line.compare(0, 5, "Code=") == 0)) __builtin_trap();
      break;
  }

  // The same bytes as a name from the folder listing: an accepted name never leads out of the folder.
  if (tdacli::IsRequestFileName(bytes)) {
    for (char c : bytes)
      if (c == '/' || c == '\\' || c == ':' || static_cast<unsigned char>(c) < 0x20) __builtin_trap();
  }
  return 0;
}
