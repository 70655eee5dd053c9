#pragma once
// The command line of a benchmark, looked at before any work is done. "--help" or "-h" prints the
// usage on standard output (exit status 0). Any other word that starts with "-" (no figure a
// benchmark takes is negative), more words than it takes, or a figure that is not a positive number
// print the usage on standard error (exit status 2): a zero or unreadable figure leaves nothing to
// report.
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tdacli::bench {

class Usage {
 public:
  // `words`: what follows the name on the usage line ("[RUNS]"); `about`: what the program measures,
  // one or more lines, each ending in "\n"; `max_words`: how many words it takes.
  Usage(int argc, char** argv, const char* name, const char* words, const char* about, int max_words)
      : argc_(argc), argv_(argv), name_(name) {
    text_ = std::string("usage: ") + name + (*words ? " " : "") + words + "\n\n" + about;
    for (int i = 1; i < argc; ++i) {
      const std::string a = argv[i];
      if (a == "--help" || a == "-h") {
        std::fputs(text_.c_str(), stdout);
        std::exit(0);
      }
    }
    for (int i = 1; i < argc; ++i)
      if (argv[i][0] == '-') Refuse(std::string("unknown option ") + argv[i]);
    if (argc - 1 > max_words) Refuse("too many arguments");
  }

  // The whole number at `index` (1 is the first word), or `fallback` when it is not given.
  int Count(int index, int fallback) const {
    if (argc_ <= index) return fallback;
    char* end = nullptr;
    const long value = std::strtol(argv_[index], &end, 10);
    if (end == argv_[index] || *end != '\0' || value < 1 || value > 100000000)
      Refuse(std::string("not a count: ") + argv_[index]);
    return static_cast<int>(value);
  }

  // The number of seconds at `index`, or `fallback` when it is not given.
  double Seconds(int index, double fallback) const {
    if (argc_ <= index) return fallback;
    char* end = nullptr;
    const double value = std::strtod(argv_[index], &end);
    if (end == argv_[index] || *end != '\0' || !(value > 0) || value > 86400)
      Refuse(std::string("not a number of seconds: ") + argv_[index]);
    return value;
  }

  // A word at `index` taken as it is, or `fallback`.
  std::string Word(int index, const std::string& fallback) const { return argc_ <= index ? fallback : argv_[index]; }

  [[noreturn]] void Refuse(const std::string& why) const {
    std::fprintf(stderr, "%s: %s\n%s", name_, why.c_str(), text_.c_str());
    std::exit(2);
  }

 private:
  int argc_;
  char** argv_;
  const char* name_;
  std::string text_;
};

}  // namespace tdacli::bench
