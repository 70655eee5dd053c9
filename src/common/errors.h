#pragma once
// Every handler traps its own failures and logs them with a number and a description, in its own
// wording, and the routine goes on or returns its failure result.
#include <concepts>
#include <exception>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "common/logging.h"

namespace tdacli {

struct TrappedError {
  long number;
  std::string description;
};

// A run-time error that carries the number the classic runtime gave it: a send the socket refused
// (its Winsock number), a text that is no Boolean (13, "Type mismatch").
struct NumberedError : std::runtime_error {
  NumberedError(long number, const std::string& description) : std::runtime_error(description), number(number) {}
  long number;
};

inline TrappedError Describe(const std::exception& e) {
  if (auto* ne = dynamic_cast<const NumberedError*>(&e)) return {ne->number, ne->what()};
  if (auto* se = dynamic_cast<const std::system_error*>(&e)) return {se->code().value(), se->code().message()};
  if (dynamic_cast<const std::bad_alloc*>(&e)) return {7, "Out of memory"};
  if (dynamic_cast<const std::out_of_range*>(&e)) return {9, "Subscript out of range"};
  return {5, e.what()};
}

// A routine that goes on past any failing statement: the error of `fn` is dropped, unlogged.
template <typename Fn>
void Ignoring(Fn&& fn) {
  try {
    fn();
  } catch (const std::exception&) {
  }
}

// The wording most routines log a trapped error in: "Detected Error In <routine>() Routine:" then the
// number, ", " and the description. `gap` stands between "Routine:" and the number (the web-service
// routines put a blank there).
inline std::string DetectedErrorIn(std::string_view routine, const TrappedError& e, std::string_view gap = "") {
  return "Detected Error In " + std::string(routine) + "() Routine:" + std::string(gap) + std::to_string(e.number) +
         ", " + e.description;
}

// The trap of a handler: runs `fn`; a run-time error it raises is logged as an "Error" in the text
// `text(error)` gives, and the caller goes on. True when `fn` ran through.
template <typename Text, typename Fn>
  requires std::invocable<Text, const TrappedError&>
bool TrapAndLog(LogSink& sink, Text&& text, Fn&& fn) {
  try {
    fn();
    return true;
  } catch (const std::exception& e) {
    LogMessage(sink, text(Describe(e)), "Error");
    return false;
  }
}

// The same in the usual wording (DetectedErrorIn).
template <typename Fn>
bool TrapAndLog(LogSink& sink, std::string_view routine, Fn&& fn) {
  return TrapAndLog(sink, [routine](const TrappedError& e) { return DetectedErrorIn(routine, e); },
                    std::forward<Fn>(fn));
}

}  // namespace tdacli
