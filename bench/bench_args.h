#pragma once
// Counts on a benchmark's command line. A missing one takes its default; anything but a positive
// whole number ends the program with its usage line, since a zero count leaves no figures to report.
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tdacli::bench {

inline int CountArg(int argc, char** argv, int index, int fallback, const char* usage) {
  if (argc <= index) return fallback;
  char* end = nullptr;
  const long value = std::strtol(argv[index], &end, 10);
  if (end == argv[index] || *end != '\0' || value < 1 || value > 100000000) {
    std::fprintf(stderr, "usage: %s %s\n", argv[0], usage);
    std::exit(2);
  }
  return static_cast<int>(value);
}

}  // namespace tdacli::bench
