#pragma once
// The web console's HTTP side: routes, sessions and their CSRF tokens, previews, and the bounds that
// keep slow or endless clients from exhausting it.
//
// Threads: cpp-httplib's accept thread and a fixed pool of kWorkers worker threads run the handlers;
// at most kQueuedConnections accepted connections wait for a worker, further ones are closed at once,
// and so is a connection beyond kConnectionsPerClient from one address (a browser opens six at most),
// so that one client holding connections open cannot take every worker.
// Handlers never touch an agent themselves: they read the engine's published floor or hand a job to
// the engine's thread and wait for it.
//
// Bounds per connection: a request (its line, headers and body, and for a kept-alive connection the
// wait for it) must arrive whole within kRequestSeconds and in at most kMaxRequestBytes; a response
// must be written within kResponseSeconds; each single read or write waits at most kIoSeconds; a
// connection serves at most kRequestsPerConnection requests. A watchdog thread shuts down the socket
// of a connection that passes its deadline, which ends whatever read or write holds its worker.
#include <cstddef>
#include <functional>
#include <string>

#include "web/audit.h"
#include "web/engine.h"

namespace tdacli::explorer::web {

inline constexpr int kWorkers = 32;
inline constexpr int kConnectionsPerClient = 8;
inline constexpr size_t kQueuedConnections = 64;
inline constexpr int kRequestSeconds = 10;
inline constexpr int kResponseSeconds = 60;
inline constexpr int kIoSeconds = 5;
inline constexpr size_t kMaxRequestBytes = (1 << 20) + (64 << 10);
// The request line and the headers together: a browser sends one or two kilobytes. Without this bound
// only the whole request's would hold them, and a megabyte of short headers parses into tens.
inline constexpr size_t kMaxHeadBytes = 32 << 10;
// The longest path a request may name; the routes match it against patterns.
inline constexpr size_t kMaxPathBytes = 2048;
inline constexpr int kRequestsPerConnection = 100;
// Sessions kept at once (the least recently used goes first) and how long an unused one lasts.
inline constexpr size_t kMaxSessions = 256;
inline constexpr int kSessionIdleHours = 12;
// Previews kept for an apply, and how long one may be applied.
inline constexpr size_t kMaxPreviews = 64;
inline constexpr int kPreviewMinutes = 15;

struct ConsoleConfig {
  std::string listen_host;
  uint16_t port = 8080;
  std::string token;
  std::string tls_cert, tls_key;  // both or neither
};

// Listens and serves until the process ends. `ready` gets the URL to open (with the token) once the
// console listens; returns false, with `error` set, when it cannot listen or load the certificate.
bool RunConsole(Engine& engine, AuditLog& audit, const ConsoleConfig& config,
                const std::function<void(const std::string& url)>& ready, std::string& error);

}  // namespace tdacli::explorer::web
