// td-login-server: plays the TD Login Server on the line protocol of port 5003, for tests and for
// trying an agent without the real server. See README.md beside this file.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>

#include "login_server.h"

namespace {

using namespace tdacli;

constexpr const char* kHelp = R"(Usage: td-login-server --listen ADDRESS[:PORT] --users FILE [options]

Plays the TD Login Server: answers the login, logoff and status exchanges of the line protocol
(plain text, no terminator, one reply per request) from a users file, and prints a transcript.

  --listen ADDRESS[:PORT]  IPv4 address to listen on (any 127.0.0.x); the port is 5003 unless given
  --users FILE             the users file (below)
  --transcript FILE        also write the transcript to FILE (replaced at start)
  --fault MODE             misbehave: silent      accept, then never send anything
                                      close-mid   greet, then hang up on the first request
                                      unexpected  greet, then answer the first request with
                                                  "TD Login Server Says Something Unexpected"
                                      two-in-one  send the "100SCREEN" push and the reply to
                                                  SERVERTEMP, Logoff... or STATUS... in one write
                                      delay=MS    send every reply MS milliseconds late
  --once                   serve one connection, then exit
  --push-gap MS            pause after each push before the next reply (default 50)
  --exit-after SECONDS     give up and exit with code 3 after SECONDS
  --quiet                  no transcript on standard output
  --help                   this text

Users file: one section per Windows name (matched without regard to case), keys in any case:

  # comment
  [jsmith]
  ServerTemp=\\fs01\tdtemp\:FTP@ftp.example.com:tduser:9F8E7D6C
  LocalTemp=C:\%WINDIR%\Temp
  LiveID=48213:10.1.2.3:5020:T
  KekInfo=KEK-0001
  ValidIPMask=192.168.5.
  Trace=True
  WebCam=true
  100Screen=10,02:00 AM,4
  ListenPorts=5001,6000,6001,6002

Replies: greeting "TD Agent Connect OK"; "ID<name>" -> "ID OK"; "IP<addr>" -> "IP Addr OK";
"EX<ext>" -> "EXT OK"; "TDLIVEID" -> the pushes "100SCREEN<100Screen>" and
"LISTENPORTS<ListenPorts>" when set, then "TDLIVEID=<LiveID>"; "SERVERTEMP" -> "SERVERTEMP<ServerTemp>"
or "SERVERTEMPNoMatchingWinName" for a name not in the file; "LOCALTEMP" -> "LOCALTEMP<LocalTemp>";
"KEKINFO" -> "KEKINFO<KekInfo>"; "VALIDIPMASK" -> "VALIDIPMASK<ValidIPMask>"; "USETRACE" ->
"AGENTTRACE<Trace>" (+ "webcam<WebCam>" when WebCam is set); "Logoff<name>:<addr>" -> "LOGOFF=OKAY"
(or "LOGOFF=NoMatchingWinName"); "STATUS<n>" -> "STATUS OK"; "TD Agent Disconnect OK" -> hang up.

Transcript, one line per event: "[n] C> bytes" received from client connection n, "[n] S> bytes"
sent to it, "[n] -- text" events ([0] is the server itself). Bytes are exact: "\" is written "\\",
CR "\r", LF "\n", TAB "\t", other bytes outside printable ASCII "\xHH".
)";

int Fail(const std::string& text) {
  std::cerr << "td-login-server: " << text << "\n(--help shows the usage)\n";
  return 2;
}

bool ToNumber(std::string_view text, int& out) {
  if (text.empty() || text.size() > 9) return false;
  out = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    out = out * 10 + (c - '0');
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  loginsim::Options options;
  std::string listen, users_path, transcript_path;
  int exit_after = 0;
  bool quiet = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string v;
    if (arg == "--help" || arg == "-h") {
      std::cout << kHelp;
      return 0;
    } else if (arg == "--listen") {
      if (!value(listen)) return Fail("--listen needs an address");
    } else if (arg == "--users") {
      if (!value(users_path)) return Fail("--users needs a file");
    } else if (arg == "--transcript") {
      if (!value(transcript_path)) return Fail("--transcript needs a file");
    } else if (arg == "--fault") {
      if (!value(v) || !loginsim::ParseFault(v, options)) return Fail("unknown fault mode " + v);
    } else if (arg == "--once") {
      options.once = true;
    } else if (arg == "--push-gap") {
      if (!value(v) || !ToNumber(v, options.push_gap_ms)) return Fail("--push-gap needs milliseconds");
    } else if (arg == "--exit-after") {
      if (!value(v) || !ToNumber(v, exit_after) || exit_after == 0) return Fail("--exit-after needs seconds");
    } else if (arg == "--quiet") {
      quiet = true;
    } else {
      return Fail("unknown argument " + arg);
    }
  }
  if (listen.empty()) return Fail("--listen is required");
  if (users_path.empty()) return Fail("--users is required");

  const size_t colon = listen.find(':');
  options.address = listen.substr(0, colon);
  if (colon != std::string::npos) {
    int port = 0;
    if (!ToNumber(listen.substr(colon + 1), port) || port < 1 || port > 65535) return Fail("bad port in " + listen);
    options.port = static_cast<uint16_t>(port);
  }

  loginsim::UserTable users;
  std::string error;
  if (!users.Load(users_path, error)) return Fail(users_path + ": " + error);

  std::ofstream transcript;
  if (!transcript_path.empty()) {
    transcript.open(transcript_path, std::ios::binary | std::ios::trunc);
    if (!transcript) return Fail("cannot write " + transcript_path);
  }

  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);
  loginsim::LoginServer server(loop, std::move(users), options);
  server.on_line = [&](const std::string& line) {
    if (!quiet) std::cout << line << std::endl;
    if (transcript.is_open()) transcript << line << "\r\n" << std::flush;
  };
  int code = 0;
  server.on_finished = [&] { loop.Quit(); };
  platform::Timer give_up(loop);
  give_up.on_tick = [&] {
    std::cerr << "td-login-server: giving up after " << exit_after << " s\n";
    code = 3;
    loop.Quit();
  };
  if (exit_after > 0) {
    give_up.SetInterval(exit_after * 1000);
    give_up.SetEnabled(true);
  }
  if (platform::SocketError e = server.Start())
    return Fail("cannot listen on " + options.address + ":" + std::to_string(options.port) + ": " + e.description);
  loop.Run();
  return code;
}
