#pragma once
// A stand-in for the TD Login Server: answers the login, logoff and status exchanges of the line
// protocol on port 5003 from a table of users, records every request and reply byte for byte, and can
// misbehave on purpose (stay silent, hang up, answer nonsense, glue two replies together, answer
// late). It runs on an EventLoop: the agent's own loop (tests), or a loop on a thread of its own.
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/tcp_socket.h"

namespace tdacli::loginsim {

// What the server hands out to one Windows user.
struct UserRecord {
  std::string name;           // Windows name as written in the users file
  std::string server_temp;    // "SERVERTEMP" reply value (folder, optionally ":FTP@..." credentials)
  std::string local_temp;     // "LOCALTEMP" reply value
  std::string live_id;        // after "TDLIVEID=": id:repeater address:repeater port:T or F
  std::string kek_info;       // "KEKINFO" reply value
  std::string valid_ip_mask;  // "VALIDIPMASK" reply value (may be empty)
  std::string trace = "False";               // "AGENTTRACE" reply value ...
  std::optional<std::string> webcam;         // ... followed by "webcam" + this when given
  std::optional<std::string> hundred_screen;  // pushed as "100SCREEN" + this during a login
  std::optional<std::string> listen_ports;    // pushed as "LISTENPORTS" + this during a login
  std::optional<std::string> phone_home;      // web service only: "PHONEHOME=" + this in the login reply
};

class UserTable {
 public:
  // The users file: "[WindowsName]" starts a user, "Key=Value" lines fill it (keys in any case:
  // ServerTemp, LocalTemp, LiveID, KekInfo, ValidIPMask, Trace, WebCam, 100Screen, ListenPorts, PhoneHome);
  // lines starting with "#" or ";" and blank lines are skipped. False with `error` on a bad file.
  bool Parse(std::string_view text, std::string& error);
  bool Load(const std::string& path, std::string& error);
  void Add(UserRecord user);
  // Windows names compare without regard to case, as Windows does.
  const UserRecord* Find(std::string_view windows_name) const;
  size_t size() const { return users_.size(); }

 private:
  std::map<std::string, UserRecord> users_;  // by lower-case name
};

enum class Fault {
  kNone,
  kSilent,      // accept, then never send anything
  kCloseMid,    // greet, then hang up on the first request
  kResetMid,    // greet, then reset the connection on the first request
  kUnexpected,  // greet, then answer the first request with text no client expects
  kTwoInOne,    // the "100SCREEN" push and the next reply leave in one write
  kDelay,       // every reply (greeting and pushes too) leaves `delay_ms` late
};

struct Options {
  std::string address = "127.0.0.1";
  uint16_t port = 5003;
  Fault fault = Fault::kNone;
  int delay_ms = 0;
  // Pause after each push, so that it reaches the client as a reply of its own.
  int push_gap_ms = 50;
  // Serve one connection, then stop listening and finish.
  bool once = false;
};

// "silent", "close-mid", "reset-mid", "unexpected", "two-in-one" or "delay=MS"; false when not understood.
bool ParseFault(std::string_view text, Options& options);

// The text sent by the "unexpected" fault.
inline constexpr std::string_view kUnexpectedReply = "TD Login Server Says Something Unexpected";

struct TranscriptEntry {
  enum class Kind { kReceived, kSent, kEvent };
  Kind kind;
  int connection;  // 1, 2, ... in order of acceptance; 0 for the server itself
  std::string bytes;
};

// Printable ASCII stays as it is; "\" becomes "\\", CR "\r", LF "\n", TAB "\t", other bytes "\xHH".
std::string EscapeBytes(std::string_view bytes);
// "[1] C> IDjsmith" (received from the client), "[1] S> ID OK" (sent), "[1] -- accepted ..." (event).
std::string FormatEntry(const TranscriptEntry& entry);

class LoginServer {
 public:
  LoginServer(platform::EventLoop& loop, UserTable users, Options options);
  ~LoginServer();
  LoginServer(const LoginServer&) = delete;
  LoginServer& operator=(const LoginServer&) = delete;

  // Listens on the configured address and port.
  platform::SocketError Start();
  // Listens on the first free loopback address 127.0.0.x (x from 2 to 254, starting at a random
  // place), so that parallel runs each get their own address for the fixed port.
  platform::SocketError StartOnFreeLoopback();
  void Stop();

  const std::string& address() const { return options_.address; }
  uint16_t port() const { return options_.port; }
  bool Finished() const;
  int Connections() const;

  // Thread-safe copies of what has been recorded so far.
  std::vector<TranscriptEntry> Transcript() const;
  std::vector<std::string> TranscriptLines() const;
  // Every request received, in order, across connections.
  std::vector<std::string> Requests() const;
  // Every reply sent (each write), in order.
  std::vector<std::string> Replies() const;
  // Each transcript line as it is recorded (called on the server's loop).
  std::function<void(const std::string& line)> on_line;
  // Called when a server started with `once` has served its connection.
  std::function<void()> on_finished;

 private:
  struct Outgoing {
    int64_t due_ms;
    std::string bytes;
    bool close_after;
  };
  struct Connection {
    explicit Connection(platform::EventLoop& loop) : socket(loop), timer(loop) {}
    int id = 0;
    platform::TcpSocket socket;
    platform::Timer timer;
    std::deque<Outgoing> queue;
    std::string user;
    int requests = 0;
    bool finished = false;
  };

  void OnConnectionRequest(int64_t request_id);
  void OnRequest(Connection& c, std::string data);
  void Answer(Connection& c, const std::string& request);
  // Sends `bytes` `offset_ms` after now (plus the delay fault); close_after hangs up once sent.
  void Enqueue(Connection& c, std::string bytes, int offset_ms, bool close_after = false);
  void Flush(Connection& c);
  void Arm(Connection& c);
  void Finish(Connection& c, const std::string& why);
  void Record(TranscriptEntry::Kind kind, int connection, std::string bytes);
  void Purge();

  platform::EventLoop& loop_;
  UserTable users_;
  Options options_;
  platform::TcpSocket listener_;
  std::vector<std::unique_ptr<Connection>> connections_;
  int next_id_ = 1;
  bool finished_ = false;
  mutable std::mutex mutex_;
  std::vector<TranscriptEntry> transcript_;
};

// A server on a thread of its own, with its own loop on the system clock.
class LoginServerThread {
 public:
  LoginServerThread(UserTable users, Options options);
  ~LoginServerThread();
  platform::SocketError Start();
  platform::SocketError StartOnFreeLoopback();
  void Stop();
  LoginServer& server() { return *server_; }

 private:
  platform::SocketError Run(platform::SocketError error);
  std::unique_ptr<platform::Clock> clock_;
  std::unique_ptr<platform::EventLoop> loop_;
  std::unique_ptr<LoginServer> server_;
  std::thread thread_;
};

}  // namespace tdacli::loginsim
