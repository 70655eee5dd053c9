// Feeds arbitrary bytes to what the web console parses from requests: the body of POST /api/set, the
// host of a path, the Cookie, Authorization and Origin headers, a token file, the head of a request
// (where it ends, its Range headers renamed). The first byte picks the parser, the rest is its input.
// An accepted body names each host once, in fleet's host form, with values fleet set would send; every
// refusal says why; the header parsers return parts of their input; a head ends at its first blank
// line and keeps every byte but the first letter of a Range header.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "web/requests.h"
#include "web/serve.h"

using namespace tdacli::explorer;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 7) {
    case 0: {
      const web::SetRequest r = web::ParseSetRequest(input);
      if (r.ok != r.error.empty()) __builtin_trap();
      if (!r.ok) break;
      if (r.hosts.empty() || r.values.empty() || (r.apply && r.preview.empty())) __builtin_trap();
      std::set<std::string> seen;
      for (const std::string& h : r.hosts)
        if (!seen.insert(h).second || web::ParseHostKey(h) != h) __builtin_trap();
      for (const fleet::NewValue& v : r.values)
        if (!fleet::SetValueProblem(v.setting->word, v.value).empty()) __builtin_trap();
      break;
    }
    case 1: {
      auto key = web::ParseHostKey(input);
      if (key && (*key != input || key->find_first_of("/\\%\0", 0, 4) != std::string::npos)) __builtin_trap();
      break;
    }
    case 2: {
      const std::string v = web::CookieValue(input, "tdx_session");
      if (input.find(v) == std::string_view::npos || v.find(';') != std::string::npos) __builtin_trap();
      break;
    }
    case 3: {
      const std::string t = web::BearerToken(input);
      if (input.find(t) == std::string_view::npos) __builtin_trap();
      if (!t.empty() && (t.front() == ' ' || t.back() == ' ')) __builtin_trap();
      break;
    }
    case 4: {
      const size_t cut = input.find('\n');
      const std::string_view origin = input.substr(0, cut);
      const std::string_view host = cut == std::string_view::npos ? std::string_view() : input.substr(cut + 1);
      if (web::SameOrigin(origin, "http", host) && origin.size() != host.size() + 7) __builtin_trap();
      if (web::SameSecret(origin, host) != (origin == host)) __builtin_trap();
      break;
    }
    case 6: {
      // The head ends at its first blank line, and no header of it is a Range header any more; nothing
      // else changes.
      const size_t length = web::HeadLength(input);
      const size_t end = length == std::string_view::npos ? input.size() : length;
      if (length != std::string_view::npos) {
        if (length > input.size() || input[length - 1] != '\n') __builtin_trap();
        const std::string_view before = input.substr(0, length - 1);
        if (before.find("\n\n") != std::string_view::npos || before.find("\n\r\n") != std::string_view::npos)
          __builtin_trap();
        if (before.back() != '\n' && !(before.size() >= 2 && before.substr(before.size() - 2) == "\n\r")) __builtin_trap();
      }
      std::string renamed(input);
      web::RenameRangeHeaders(renamed, end);
      if (renamed.size() != input.size()) __builtin_trap();
      for (size_t i = 0; i < input.size(); ++i)
        if (renamed[i] != input[i] && !(i > 0 && i < end && input[i - 1] == '\n' && renamed[i] == 'X' &&
                                        (input[i] == 'R' || input[i] == 'r')))
          __builtin_trap();
      for (size_t at = renamed.find('\n'); at != std::string::npos && at + 7 <= end; at = renamed.find('\n', at + 1)) {
        std::string word = renamed.substr(at + 1, 6);
        for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (word == "range:") __builtin_trap();
      }
      break;
    }
    case 5: {
      const std::string token = web::TokenFromFile(std::string(input));
      if (!token.empty() && (!web::IsTokenText(token) || input.find(token) == std::string_view::npos)) __builtin_trap();
      break;
    }
  }
  return 0;
}
