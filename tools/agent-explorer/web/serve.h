#pragma once
// `agent-explorer serve`: the web console, one page and a JSON API over the fleet engine.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fleet/fleet.h"

namespace tdacli::explorer::web {

struct ServeOptions {
  std::vector<fleet::Host> hosts;
  std::string listen_host = "127.0.0.1";
  uint16_t listen_port = 8080;  // 0: any free port (the start-up line names it)
  int parallel = 64;
  double timeout_seconds = 5;
  int refresh_every_seconds = 0;
  std::string audit_log = "agent-explorer-audit.jsonl";
  std::string token_file, tls_cert, tls_key;
};

struct ServeParsed {
  bool ok = false;
  bool help = false;
  ServeOptions options;
  std::string error;
};
// The arguments after "serve".
ServeParsed ParseServeArguments(const std::vector<std::string>& args, const fleet::FileReader& read_file);
std::string ServeUsageText();

// Whether the console may listen on `host` without TLS: an address of 127.0.0.0/8.
bool IsLoopback(const std::string& host);
// Why the console refuses to listen where the options say ("" when it may): beyond loopback without
// --tls-cert and --tls-key, and on Windows beyond loopback or with TLS at all.
std::string ListenProblem(const ServeOptions& o);
// The access token of a token file: its first line without blanks and line end, when that is 32 to
// 256 characters of A-Z a-z 0-9 . _ ~ -; "" otherwise.
std::string TokenFromFile(const std::string& content);
// A fresh access token: 256 random bits as 64 hexadecimal digits.
std::string NewToken();

// The whole `agent-explorer serve ...` program: runs until the process is stopped. `say` gets the
// start-up line, `err` the errors; returns the exit code when the console cannot start.
int ServeMain(const std::vector<std::string>& args, const std::function<void(const std::string&)>& say,
              const std::function<void(const std::string&)>& err);

}  // namespace tdacli::explorer::web
