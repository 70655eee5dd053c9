#include "platform/process_start.h"

namespace tdacli::platform {

std::vector<std::string> SplitCommandLine(std::string_view command_line) {
  std::vector<std::string> args;
  std::string current;
  bool in_arg = false, quoted = false;
  for (char c : command_line) {
    if (c == '"') {
      quoted = !quoted;
      in_arg = true;  // "" is an argument of its own, empty
    } else if (!quoted && (c == ' ' || c == '\t')) {
      if (in_arg) args.push_back(std::move(current));
      current.clear();
      in_arg = false;
    } else {
      current += c;
      in_arg = true;
    }
  }
  if (in_arg) args.push_back(std::move(current));
  return args;
}

}  // namespace tdacli::platform
