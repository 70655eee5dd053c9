#pragma once
// Paths are written with the platform's separator, so Windows paths and log texts read "C:\...\" and
// Linux paths work.
#include <string>

namespace tdacli {

#ifdef _WIN32
inline constexpr char kSep = '\\';
#else
inline constexpr char kSep = '/';
#endif
inline const std::string kSepStr(1, kSep);

}  // namespace tdacli
