#pragma once
// Every handler traps its own failures and logs them with a number and a description.
#include <exception>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>

namespace tdacli {

struct TrappedError {
  long number;
  std::string description;
};

inline TrappedError Describe(const std::exception& e) {
  if (auto* se = dynamic_cast<const std::system_error*>(&e)) return {se->code().value(), se->code().message()};
  if (dynamic_cast<const std::bad_alloc*>(&e)) return {7, "Out of memory"};
  if (dynamic_cast<const std::out_of_range*>(&e)) return {9, "Subscript out of range"};
  return {5, e.what()};
}

}  // namespace tdacli
