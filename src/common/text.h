#pragma once
// Text helpers with the semantics the agent's routines are written in (1-based positions, blanks-only
// trimming, splitting that keeps empty pieces).
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"

namespace tdacli {

// Cuts `text` at every `delimiter`; parts[1..n] receive the pieces (parts[0] stays empty); returns n.
// An empty text has no parts.
int SplitString(std::string_view text, std::string_view delimiter, std::vector<std::string>& parts);

std::string Lower(std::string_view s);
std::string Upper(std::string_view s);
std::string ReplaceAll(std::string_view s, std::string_view what, std::string_view with);
inline bool Contains(std::string_view s, std::string_view what) { return s.find(what) != std::string_view::npos; }
inline bool StartsWith(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }
// Characters from 1-based position k to the end (empty when past the end).
std::string Mid(std::string_view s, size_t k);
std::string Left(std::string_view s, size_t n);
// Removes leading and trailing blanks (spaces only).
std::string TrimBlanks(std::string_view s);
// Whole-number conversion, the one used for every number the agent reads from text: blanks around it
// are ignored, the notation is decimal only (sign, digits, optional fraction rounded half to even);
// "0x1F40", "1e3" or "inf" are not numbers. Nothing when the text is not a number or out of range.
std::optional<int16_t> ToInt16(std::string_view s);
// The same, 32-bit.
std::optional<long> ToLong(std::string_view s);

// "YYYY-MM-DD HH:NN:SS AMPM", e.g. "2026-11-14 11:21:05 PM".
std::string FormatStamp(const platform::LocalTime& t);
// "YYYYMMDDHHMMSS".
std::string FormatCompact(const platform::LocalTime& t);

}  // namespace tdacli
