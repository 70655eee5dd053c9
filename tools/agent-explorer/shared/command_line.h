#pragma once
// What the modes' command lines share: options with a value, and files named on them.
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tdacli::explorer {

// Whether args[i] is the option `name` with its value, as "--name VALUE" or "--name=VALUE": 0 it is
// not, 1 it is (the value in `value`, and `i` on the last word taken), -1 it is but the value is missing.
int OptionValue(const std::vector<std::string>& args, size_t& i, const std::string& name, std::string& value);

// A file named on the command line, read no further than just past `limit` bytes (a caller that
// refuses larger files sees that it is larger); nothing when it cannot be read.
std::optional<std::string> ReadBoundedFile(const std::string& path, size_t limit);

}  // namespace tdacli::explorer
