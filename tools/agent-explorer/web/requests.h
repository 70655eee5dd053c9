#pragma once
// What the web console reads from a request: the host named in a path, the body of POST /api/set,
// the session cookie, the bearer token and the Origin. Every one of them comes from the network.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/fleet.h"

namespace tdacli::explorer::web {

// "HOST:PORT" as the path names it (after "/api/hosts/"): a host of letters, digits, "." and "-" (at
// most 253) and a port 1-65535 without leading zeros. The caller looks it up among the floor's hosts.
std::optional<std::string> ParseHostKey(std::string_view text);

// POST /api/set: {"hosts": ["HOST:PORT", ...], "settings": {"server": "10.1.1.9", ...},
// "apply": false|true, "preview": "ID"} ("preview" with apply only: the preview being applied).
inline constexpr size_t kMaxBodyBytes = 1 << 20;
// Arrays and objects nested deeper than this are refused before the JSON parser sees them.
inline constexpr int kMaxBodyDepth = 4;
struct SetRequest {
  bool ok = false;
  std::string error;               // why the body was refused
  std::vector<std::string> hosts;  // in the order given, each once
  std::vector<fleet::NewValue> values;  // in the order of fleet's setting names
  bool apply = false;
  std::string preview;
};
SetRequest ParseSetRequest(std::string_view body);

// How long a request's head (its line and headers) is at the start of `bytes`: up to and with the
// blank line that ends it (CR LF, or a bare LF), or npos while that line has not come.
size_t HeadLength(std::string_view bytes);
// Renames every Range header among the first `head_length` bytes (its first letter becomes 'X'), the
// length of everything kept as it is: the console serves no part of an answer.
void RenameRangeHeaders(std::string& bytes, size_t head_length);

// The value of cookie `name` in a Cookie header ("" when it is not there).
std::string CookieValue(std::string_view header, std::string_view name);
// The token of "Authorization: Bearer TOKEN" ("" when the header is another scheme).
std::string BearerToken(std::string_view authorization);
// An access token, session id or CSRF token: 32 to 256 characters of A-Z a-z 0-9 . _ ~ -.
bool IsTokenText(std::string_view text);
// Compares two secrets in a time that does not depend on where they differ.
bool SameSecret(std::string_view a, std::string_view b);
// Whether an Origin header names the console as the browser addressed it: "<scheme>://<Host header>".
bool SameOrigin(std::string_view origin, std::string_view scheme, std::string_view host_header);

}  // namespace tdacli::explorer::web
