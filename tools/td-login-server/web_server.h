#pragma once
// The login web service of the simulator: LoginMethod, LogOffMethod, StatusMethod and GrabberMethod
// over HTTP or HTTPS, answered from the same users table as the line protocol, each reply as the
// service's XML string result. Grabber tasks are queued per machine. Every request and reply goes to
// the transcript. Faults: 404, empty body, "ERROR|", late answers, an untrusted certificate, an
// oversized body. Runs on threads of its own (the HTTP library's).
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "login_server.h"

namespace httplib {
class Server;
}

namespace tdacli::loginsim {

enum class WebFault {
  kNone,
  kNotFound,   // every request answered 404
  kEmpty,      // 200 with an empty body
  kError,      // 200 with "ERROR|Simulated failure"
  kDelay,      // every answer `delay_ms` late ("slow": 15 s, beyond the client's 10 s)
  kUntrusted,  // HTTPS with a certificate made at start by nobody the client trusts
  kOversize,   // 200 with a body of 100 KiB
};

struct WebOptions {
  std::string address = "127.0.0.1";
  int port = 0;  // 0: any free port (see port())
  bool https = false;
  std::string cert_file, key_file;  // PEM, for HTTPS
  WebFault fault = WebFault::kNone;
  int delay_ms = 0;
};

// "404", "empty", "error", "slow", "delay=MS", "untrusted" or "oversize"; false when not understood.
bool ParseWebFault(std::string_view text, WebOptions& options);

// The XML string result the service wraps every reply in.
std::string XmlStringResult(std::string_view text);
// The login reply for a user: "SUCCESS|" and the fields (a "|" inside a value travels as "_").
std::string LoginReply(const UserRecord& user);

// Writes a CA certificate (ca.pem), and a server certificate it signed for 127.0.0.1, ::1 and
// localhost with its key (server.pem, server.key), into `folder`. False with `error` on failure.
bool MakeTestPki(const std::string& folder, std::string& error);

class WebLoginServer {
 public:
  WebLoginServer(UserTable users, WebOptions options);
  ~WebLoginServer();
  WebLoginServer(const WebLoginServer&) = delete;
  WebLoginServer& operator=(const WebLoginServer&) = delete;

  // Binds and starts serving; false with `error` when the address is taken or the certificate unusable.
  bool Start(std::string& error);
  void Stop();
  int port() const { return port_; }
  // "http://127.0.0.1:PORT" or "https://...".
  std::string BaseUrl() const;

  // A task handed out (once) by the next GrabberMethod call for `machine` (any case).
  void QueueGrabberTask(const std::string& machine, const std::string& task);

  std::vector<std::string> TranscriptLines() const;
  // The request targets (path and query as sent), in order.
  std::vector<std::string> Requests() const;
  // Each transcript line as it is recorded (called on the server's threads, one at a time).
  std::function<void(const std::string& line)> on_line;

 private:
  struct Reply {
    int status;
    std::string body;
  };
  Reply Answer(const std::string& path, const std::map<std::string, std::string>& query);
  void Record(const std::string& line);
  bool Wait(int ms);  // false when stopped meanwhile

  UserTable users_;
  WebOptions options_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::condition_variable stopped_cv_;
  bool stopping_ = false;
  int requests_seen_ = 0;
  std::vector<std::string> transcript_;
  std::vector<std::string> requests_;
  std::map<std::string, std::deque<std::string>> tasks_;  // by lower-case machine name
};

}  // namespace tdacli::loginsim
