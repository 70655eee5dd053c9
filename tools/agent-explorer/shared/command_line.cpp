#include "shared/command_line.h"

#include <fstream>

namespace tdacli::explorer {

int OptionValue(const std::vector<std::string>& args, size_t& i, const std::string& name, std::string& value) {
  const std::string& a = args[i];
  if (a == name) {
    if (i + 1 >= args.size()) return -1;
    value = args[++i];
    return 1;
  }
  if (a.rfind(name + "=", 0) == 0) {
    value = a.substr(name.size() + 1);
    return 1;
  }
  return 0;
}

std::optional<std::string> ReadBoundedFile(const std::string& path, size_t limit) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return std::nullopt;
  std::string content;
  char buf[65536];
  while (f && content.size() <= limit) {
    f.read(buf, sizeof buf);
    content.append(buf, static_cast<size_t>(f.gcount()));
  }
  if (f.bad()) return std::nullopt;
  return content;
}

}  // namespace tdacli::explorer
