// The web console's HTTP side on cpp-httplib: a server whose connections carry deadlines and byte
// bounds, sessions, the routes of the page and the API.
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "shared/exchange.h"
#include "web/console.h"
#include "web/requests.h"
#include "web/serve.h"

#ifdef TDACLI_SERVE_TLS
#include <openssl/err.h>
#include <openssl/ssl.h>
#endif

namespace tdacli::explorer::web {

// The page's files, compiled in (cmake/EmbedFiles.cmake).
struct EmbeddedFile {
  const char* name;
  const unsigned char* data;
  size_t size;
};
extern const EmbeddedFile kEmbeddedFiles[];
extern const size_t kEmbeddedFileCount;

namespace {

using Json = nlohmann::ordered_json;
using Steady = std::chrono::steady_clock;
using httplib::Request;
using httplib::Response;

std::string Dump(const Json& j) { return j.dump(-1, ' ', true, Json::error_handler_t::replace); }

void ShutdownSocket(socket_t sock) {
#ifdef _WIN32
  ::shutdown(sock, SD_BOTH);
#else
  ::shutdown(sock, SHUT_RDWR);
#endif
}

// --- connections: deadlines, bytes, workers ------------------------------------------------------

// Connections in hand and their deadlines. A connection past its deadline has its socket shut down,
// which ends the read or write its worker is blocked in; removed before the socket is closed, so a
// reused descriptor is never touched.
class Watchdog {
 public:
  Watchdog() : thread_([this] { Watch(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  uint64_t Add(socket_t sock, int seconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    const uint64_t id = next_++;
    entries_[id] = {sock, Steady::now() + std::chrono::seconds(seconds), true};
    return id;
  }
  void Arm(uint64_t id, int seconds) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(id);
    if (it != entries_.end()) it->second.deadline = Steady::now() + std::chrono::seconds(seconds), it->second.armed = true;
  }
  void Disarm(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(id);
    if (it != entries_.end()) it->second.armed = false;
  }
  void Remove(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.erase(id);
  }

 private:
  struct Entry {
    socket_t sock;
    Steady::time_point deadline;
    bool armed;
  };
  void Watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
      wake_.wait_for(lock, std::chrono::milliseconds(250));
      const auto now = Steady::now();
      for (auto& [id, e] : entries_) {
        if (e.armed && now >= e.deadline) {
          e.armed = false;
          ShutdownSocket(e.sock);
        }
      }
    }
  }
  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<uint64_t, Entry> entries_;
  uint64_t next_ = 1;
  bool stop_ = false;
  std::thread thread_;
};

// A connection's byte stream (plain or TLS) with its request bounds: httplib parses from it.
//
// A request's head (its line and headers) is taken whole before httplib sees a byte of it, within
// kMaxHeadBytes, and any Range header in it is renamed out of the way. The console serves no part of
// an answer, and the library would match a range of up to eight kilobytes against a regular
// expression whose recursion runs a worker's stack out, before any check of ours could refuse the
// request; a range past an answer's end would make it spin.
class BoundedStream : public httplib::Stream {
 public:
  BoundedStream(socket_t sock, void* ssl, Watchdog& watchdog, uint64_t id)
      : sock_(sock), ssl_(ssl), watchdog_(watchdog), id_(id) {}

  // A new request: it must arrive whole within kRequestSeconds and kMaxRequestBytes.
  void BeginRequest() {
    read_ = 0;
    head_taken_ = false;
    writing_ = false;
    watchdog_.Arm(id_, kRequestSeconds);
  }
  // The handler runs (its own time is bounded by what it waits for); the answer comes next.
  void HandlerStarts() { watchdog_.Disarm(id_); }
  // The answer given, the connection ends: what the client sent beyond the request's head (a body
  // nobody read) must not be taken for its next request.
  void CloseAfterAnswer() { close_after_ = true; }
  bool closes_after_answer() const { return close_after_; }

  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }

  ssize_t read(char* ptr, size_t size) override {
    if (!head_taken_ && !TakeHead()) return -1;
    if (at_ == pending_.size()) {
      if (read_ >= kMaxRequestBytes) return -1;
      if (!ReceiveMore()) return -1;
    }
    const size_t n = std::min(size, pending_.size() - at_);
    std::memcpy(ptr, pending_.data() + at_, n);
    at_ += n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, size_t size) override {
    if (!writing_) {
      writing_ = true;
      watchdog_.Arm(id_, kResponseSeconds);
    }
#ifdef TDACLI_SERVE_TLS
    if (ssl_) {
      const int n = SSL_write(static_cast<SSL*>(ssl_), ptr, static_cast<int>(std::min<size_t>(size, INT32_MAX)));
      return n > 0 ? n : -1;
    }
#endif
    return httplib::detail::send_socket(sock_, ptr, size, 0);
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override { Address(true, ip, port); }
  void get_local_ip_and_port(std::string& ip, int& port) const override { Address(false, ip, port); }
  socket_t socket() const override { return sock_; }

 private:
  // Appends what the connection brings next to the bytes not yet handed out.
  bool ReceiveMore() {
    if (at_ == pending_.size()) {
      pending_.clear();
      at_ = 0;
    }
    char buf[4096];
    const ssize_t n = Receive(buf, sizeof buf);
    if (n <= 0) return false;
    pending_.append(buf, static_cast<size_t>(n));
    read_ += static_cast<size_t>(n);
    return true;
  }

  // Waits for the blank line that ends the head, within kMaxHeadBytes, and renames its Range headers.
  bool TakeHead() {
    pending_.erase(0, at_);
    at_ = 0;
    size_t length;
    while ((length = HeadLength(pending_)) == std::string::npos)
      if (pending_.size() > kMaxHeadBytes || !ReceiveMore()) return false;
    if (length > kMaxHeadBytes) return false;
    RenameRangeHeaders(pending_, length);
    head_taken_ = true;
    return true;
  }

  ssize_t Receive(char* buf, size_t size) {
#ifdef TDACLI_SERVE_TLS
    if (ssl_) {
      const int n = SSL_read(static_cast<SSL*>(ssl_), buf, static_cast<int>(size));
      return n > 0 ? n : -1;
    }
#endif
    return httplib::detail::read_socket(sock_, buf, size, 0);
  }

  void Address(bool remote, std::string& ip, int& port) const {
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    ip.clear();
    port = -1;
    const int r = remote ? getpeername(sock_, reinterpret_cast<sockaddr*>(&addr), &len)
                         : getsockname(sock_, reinterpret_cast<sockaddr*>(&addr), &len);
    if (r != 0) return;
    char host[NI_MAXHOST], service[NI_MAXSERV];
    if (getnameinfo(reinterpret_cast<sockaddr*>(&addr), len, host, sizeof host, service, sizeof service,
                    NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
      ip = host;
      port = std::atoi(service);
    }
  }

  socket_t sock_;
  void* ssl_;
  Watchdog& watchdog_;
  uint64_t id_;
  std::string pending_;  // received, handed out up to at_
  size_t at_ = 0, read_ = 0;
  bool head_taken_ = false, writing_ = false, close_after_ = false;
};

// The connections in hand per client address.
class Clients {
 public:
  bool Enter(const std::string& address) {
    std::lock_guard<std::mutex> lock(mutex_);
    int& n = count_[address];
    if (n >= kConnectionsPerClient) return false;
    ++n;
    return true;
  }
  void Leave(const std::string& address) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = count_.find(address);
    if (it != count_.end() && --it->second <= 0) count_.erase(it);
  }

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, int> count_;
};

thread_local BoundedStream* t_stream = nullptr;
thread_local bool t_refuse = false;

// A fixed pool of workers with a bounded queue: a connection beyond the queue is closed at once
// (its task runs on the accept thread with t_refuse set, and the server closes its socket).
class BoundedPool : public httplib::TaskQueue {
 public:
  BoundedPool(int workers, size_t queued) : limit_(queued) {
    for (int i = 0; i < workers; ++i) threads_.emplace_back([this] { Work(); });
  }
  void enqueue(std::function<void()> fn) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (jobs_.size() < limit_) {
        jobs_.push_back(std::move(fn));
        wake_.notify_one();
        return;
      }
    }
    t_refuse = true;
    fn();
    t_refuse = false;
  }
  void shutdown() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    for (auto& t : threads_) t.join();
  }

 private:
  void Work() {
    for (;;) {
      std::function<void()> fn;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [&] { return stop_ || !jobs_.empty(); });
        if (jobs_.empty()) return;
        fn = std::move(jobs_.front());
        jobs_.pop_front();
      }
      fn();
    }
  }
  const size_t limit_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
  std::vector<std::thread> threads_;
  bool stop_ = false;
};

class BoundedServer : public httplib::Server {
 public:
  explicit BoundedServer(void* tls_context) : tls_(tls_context) {
    new_task_queue = [] { return new BoundedPool(kWorkers, kQueuedConnections); };
    set_read_timeout(kIoSeconds, 0);
    set_write_timeout(kIoSeconds, 0);
    set_payload_max_length(kMaxBodyBytes);
  }

 private:
  bool process_and_close_socket(socket_t sock) override {
    std::string client;
    int port = 0;
    BoundedStream(sock, nullptr, watchdog_, 0).get_remote_ip_and_port(client, port);
    if (t_refuse || !clients_.Enter(client)) {
      ShutdownSocket(sock);
      httplib::detail::close_socket(sock);
      return false;
    }
    const uint64_t id = watchdog_.Add(sock, kRequestSeconds);
    void* ssl = nullptr;
    bool ok = true;
#ifdef TDACLI_SERVE_TLS
    if (tls_) {
      SSL* s = SSL_new(static_cast<SSL_CTX*>(tls_));
      ssl = s;
      ok = s && SSL_set_fd(s, static_cast<int>(sock)) == 1 && SSL_accept(s) == 1;
    }
#endif
    if (ok) {
      BoundedStream stream(sock, ssl, watchdog_, id);
      t_stream = &stream;
      for (int left = kRequestsPerConnection; left > 0 && is_running(); --left) {
        stream.BeginRequest();
        bool closed = false;
        if (!process_request(stream, left == 1, closed, nullptr) || closed || stream.closes_after_answer()) break;
      }
      t_stream = nullptr;
    }
#ifdef TDACLI_SERVE_TLS
    if (ssl) SSL_free(static_cast<SSL*>(ssl));
    ERR_clear_error();
#endif
    watchdog_.Remove(id);
    clients_.Leave(client);
    ShutdownSocket(sock);
    httplib::detail::close_socket(sock);
    return ok;
  }

  void* tls_;
  Watchdog watchdog_;
  Clients clients_;
};

// --- sessions and previews -------------------------------------------------------------------

class Sessions {
 public:
  // A new session: its id (the cookie) and its CSRF token.
  std::pair<std::string, std::string> Create() {
    std::lock_guard<std::mutex> lock(mutex_);
    Expire();
    if (sessions_.size() >= kMaxSessions) {
      auto oldest = std::min_element(sessions_.begin(), sessions_.end(),
                                     [](const auto& a, const auto& b) { return a.second.used < b.second.used; });
      sessions_.erase(oldest);
    }
    std::string id = NewToken(), csrf = NewToken();
    sessions_[id] = {csrf, Steady::now()};
    return {id, csrf};
  }
  // The session's CSRF token, or "" when there is no such session.
  std::string Csrf(const std::string& id) {
    if (!IsTokenText(id)) return "";
    std::lock_guard<std::mutex> lock(mutex_);
    Expire();
    auto it = sessions_.find(id);
    if (it == sessions_.end()) return "";
    it->second.used = Steady::now();
    return it->second.csrf;
  }

 private:
  struct Session {
    std::string csrf;
    Steady::time_point used;
  };
  void Expire() {
    const auto limit = Steady::now() - std::chrono::hours(kSessionIdleHours);
    for (auto it = sessions_.begin(); it != sessions_.end();) it = it->second.used < limit ? sessions_.erase(it) : std::next(it);
  }
  std::mutex mutex_;
  std::unordered_map<std::string, Session> sessions_;
};

struct Preview {
  std::vector<std::string> hosts;
  std::vector<std::pair<std::string, std::string>> values;  // setting word, value
  std::vector<fleet::Host> to_apply;  // the hosts the preview showed a change for
  Steady::time_point made;
};

class Previews {
 public:
  std::string Keep(Preview p) {
    std::lock_guard<std::mutex> lock(mutex_);
    Expire();
    while (order_.size() >= kMaxPreviews) {
      previews_.erase(order_.front());
      order_.pop_front();
    }
    std::string id = NewToken();
    p.made = Steady::now();
    previews_[id] = std::move(p);
    order_.push_back(id);
    return id;
  }
  // The preview, taken when it shows exactly these hosts and values (an apply uses it once); "" and
  // nothing taken otherwise, with why in `error`.
  std::optional<Preview> Take(const std::string& id, const std::vector<std::string>& hosts,
                              const std::vector<std::pair<std::string, std::string>>& values, std::string& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    Expire();
    auto it = previews_.find(id);
    if (it == previews_.end()) {
      error = "no such preview (a preview is applied once, within " + std::to_string(kPreviewMinutes) +
              " minutes): preview again";
      return std::nullopt;
    }
    if (it->second.hosts != hosts || it->second.values != values) {
      error = "the apply differs from its preview: apply exactly what was previewed, or preview again";
      return std::nullopt;
    }
    Preview p = std::move(it->second);
    previews_.erase(it);
    order_.erase(std::find(order_.begin(), order_.end(), id));
    return p;
  }

 private:
  void Expire() {
    const auto limit = Steady::now() - std::chrono::minutes(kPreviewMinutes);
    while (!order_.empty() && previews_[order_.front()].made < limit) {
      previews_.erase(order_.front());
      order_.pop_front();
    }
  }
  std::mutex mutex_;
  std::unordered_map<std::string, Preview> previews_;
  std::deque<std::string> order_;
};

std::vector<std::pair<std::string, std::string>> ValuePairs(const std::vector<fleet::NewValue>& values) {
  std::vector<std::pair<std::string, std::string>> out;
  for (const fleet::NewValue& v : values) out.emplace_back(std::string(v.setting->word), v.value);
  return out;
}

// --- the console -----------------------------------------------------------------------------

constexpr const char* kSessionCookie = "tdx_session";
constexpr const char* kJsonType = "application/json; charset=utf-8";

class Console {
 public:
  Console(Engine& engine, AuditLog& audit, const ConsoleConfig& config, BoundedServer& server, bool tls)
      : engine_(engine), audit_(audit), config_(config), server_(server), tls_(tls) {}

  void Route() {
    httplib::Headers headers = {
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
         "form-action 'self'; base-uri 'none'; frame-ancestors 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Cache-Control", "no-store"},
    };
    server_.set_default_headers(headers);
    server_.set_pre_routing_handler([this](const Request& q, Response& s) { return Guard(q, s); });
    server_.set_error_handler([](const Request&, Response& s) {
      if (s.body.empty()) s.set_content(Dump(Json{{"error", s.status == 404 ? "not found" : "refused"}}), kJsonType);
    });
    server_.set_exception_handler([](const Request&, Response& s, std::exception_ptr) {
      s.status = 500;
      s.set_content(Dump(Json{{"error", "internal error"}}), kJsonType);
    });

    server_.Get("/login", Handler([this](const Request& q, Response& s) { Login(q, s); }));
    for (size_t i = 0; i < kEmbeddedFileCount; ++i) {
      const EmbeddedFile& f = kEmbeddedFiles[i];
      const std::string name = f.name;
      auto ends = [&](const char* tail) {
        const std::string t = tail;
        return name.size() > t.size() && name.compare(name.size() - t.size(), t.size(), t) == 0;
      };
      const std::string type = ends(".js")    ? "text/javascript; charset=utf-8"
                               : ends(".css") ? "text/css; charset=utf-8"
                               : ends(".svg") ? "image/svg+xml"
                                              : "text/html; charset=utf-8";
      const std::string path = name == "index.html" ? "/" : "/" + name;
      server_.Get(path, Handler([&f, type](const Request&, Response& s) {
                    s.set_content(reinterpret_cast<const char*>(f.data), f.size, type);
                  }));
    }
    server_.Get("/api/session", Handler([this](const Request& q, Response& s) {
                  Json j;
                  j["csrf"] = CsrfOf(q);
                  Send(s, 200, Dump(j));
                }));
    server_.Get("/api/hosts", Handler([this](const Request&, Response& s) {
                  // The floor's rows are written from the floor itself: every reader shares one copy.
                  const auto snapshot = engine_.FloorAndStatus();
                  const auto floor = snapshot.first;
                  auto head = std::make_shared<std::string>(HostsJsonHead(*floor, snapshot.second));
                  const size_t length = head->size() + floor->rows_json.size() + 1;
                  s.set_content_provider(length, kJsonType, [floor, head](size_t offset, size_t, httplib::DataSink& sink) {
                    const std::string_view parts[] = {*head, floor->rows_json, "}"};
                    for (std::string_view part : parts) {
                      if (offset >= part.size()) {
                        offset -= part.size();
                        continue;
                      }
                      const size_t n = std::min<size_t>(part.size() - offset, 65536);
                      return sink.write(part.data() + offset, n);
                    }
                    // Past the end: nothing more will come, and an answer that wrote nothing would be
                    // asked again for ever.
                    return false;
                  });
                }));
    server_.Get(R"(/api/hosts/([^/]+))", Handler([this](const Request& q, Response& s) {
                  auto floor = engine_.floor();
                  auto row = Row(*floor, q.matches[1], s);
                  if (row) Send(s, 200, SeatJson(*floor, *row));
                }));
    server_.Post(R"(/api/hosts/([^/]+)/login)", Handler([this](const Request& q, Response& s) {
                   SeatCommand(q, s, "|LOGIN|", "|LOGIN|<Status>", kLoginTimeoutSeconds);
                 }));
    server_.Post(R"(/api/hosts/([^/]+)/gettracefile)", Handler([this](const Request& q, Response& s) {
                   // The agent waits up to 11 seconds for the media-transfer service's answer.
                   SeatCommand(q, s, "|GETTRACEFILE|", "|GETTRACEFILE|<Status>", 20);
                 }));
    server_.Get("/api/scan", Handler([this](const Request&, Response& s) { Send(s, 200, ScanJson(engine_.status())); }));
    server_.Post("/api/scan", Handler([this](const Request&, Response& s) {
                   const bool started = engine_.RequestScan();
                   Json j = Json::parse(ScanJson(engine_.status()));
                   j["started"] = started;
                   Send(s, 202, Dump(j));
                 }));
    server_.Post("/api/set", Handler([this](const Request& q, Response& s) { Set(q, s); }));
    server_.Get("/api/audit", Handler([this](const Request&, Response& s) { Send(s, 200, audit_.RecentJson()); }));
    server_.Get("/api/export.csv", Handler([this](const Request& q, Response& s) { SendExport(q, s, Export::kCsv); }));
    server_.Get("/api/export.json", Handler([this](const Request& q, Response& s) { SendExport(q, s, Export::kJson); }));
  }

 private:
  // Every handler: the request is in, so its deadline gives way to the handler's own waits.
  template <typename F>
  static httplib::Server::Handler Handler(F f) {
    return [f](const Request& q, Response& s) {
      if (t_stream) t_stream->HandlerStarts();
      f(q, s);
    };
  }

  static void Send(Response& s, int status, std::string body) {
    s.status = status;
    // Moved, not copied: a floor's JSON runs to megabytes.
    s.body = std::move(body);
    s.set_header("Content-Type", kJsonType);
  }
  static void Error(Response& s, int status, const std::string& why) {
    s.status = status;
    s.set_content(Dump(Json{{"error", why}}), kJsonType);
  }

  std::string Scheme() const { return tls_ ? "https" : "http"; }

  enum class Auth { kNone, kBearer, kSession };
  Auth Authenticate(const Request& q, std::string* csrf) {
    const std::string bearer = BearerToken(q.get_header_value("Authorization"));
    if (!bearer.empty()) return SameSecret(bearer, config_.token) ? Auth::kBearer : Auth::kNone;
    const std::string id = CookieValue(q.get_header_value("Cookie"), kSessionCookie);
    const std::string token = sessions_.Csrf(id);
    if (token.empty()) return Auth::kNone;
    if (csrf) *csrf = token;
    return Auth::kSession;
  }
  std::string CsrfOf(const Request& q) {
    std::string csrf;
    return Authenticate(q, &csrf) == Auth::kSession ? csrf : std::string();
  }

  // Before any route: who asks, and whether a change comes from the console's own page.
  httplib::Server::HandlerResponse Guard(const Request& q, Response& s) {
    // Answers go out uncompressed: a floor's network has the bandwidth, and the library's Brotli at
    // its highest quality would spend seconds and tens of megabytes on a floor's export. The library
    // hands the request over as const although it owns it and reads the header only later.
    const_cast<Request&>(q).headers.erase("Accept-Encoding");
    // No part of an answer is served (the stream renames Range headers already).
    const_cast<Request&>(q).ranges.clear();
    // The routes match the path against patterns whose recursion grows with it.
    if (q.path.size() > kMaxPathBytes) return Refuse(s, 414, "the path is longer than " + std::to_string(kMaxPathBytes) + " bytes");
    if (q.path == "/login" && q.method == "GET") return httplib::Server::HandlerResponse::Unhandled;
    std::string csrf;
    const Auth auth = Authenticate(q, &csrf);
    if (auth == Auth::kNone) {
      s.set_header("WWW-Authenticate", "Bearer");
      CloseAfterAnswer(s);
      if (q.path.rfind("/api/", 0) == 0) {
        Error(s, 401, "no valid session or token");
      } else {
        s.status = 401;
        s.set_content("Open the address agent-explorer serve printed when it started: it carries the access token.\n",
                      "text/plain; charset=utf-8");
      }
      return httplib::Server::HandlerResponse::Handled;
    }
    if (q.method != "GET" && q.method != "HEAD") {
      const std::string origin = q.get_header_value("Origin");
      const std::string host = q.get_header_value("Host");
      bool allowed;
      if (auth == Auth::kSession)
        allowed = SameOrigin(origin, Scheme(), host) && SameSecret(q.get_header_value("X-CSRF-Token"), csrf);
      else
        allowed = origin.empty() || SameOrigin(origin, Scheme(), host);
      if (!allowed) {
        CloseAfterAnswer(s);
        Error(s, 403,
              auth == Auth::kSession ? "a change needs the session's CSRF token and the console's own Origin"
                                     : "a change from another origin");
        return httplib::Server::HandlerResponse::Handled;
      }
    }
    // The console takes JSON bodies only; the library would take a multipart body apart before the
    // route is known.
    if (q.is_multipart_form_data()) return Refuse(s, 415, "a body is JSON, never multipart");
    return httplib::Server::HandlerResponse::Unhandled;
  }

  // The connection ends with this answer: a body the request may carry is never read, and must not be
  // taken for the client's next request.
  static void CloseAfterAnswer(Response& s) {
    s.set_header("Connection", "close");
    if (t_stream) t_stream->CloseAfterAnswer();
  }
  static httplib::Server::HandlerResponse Refuse(Response& s, int status, const std::string& why) {
    CloseAfterAnswer(s);
    Error(s, status, why);
    return httplib::Server::HandlerResponse::Handled;
  }

  void Login(const Request& q, Response& s) {
    const std::string token = q.get_param_value("token");
    if (!SameSecret(token, config_.token)) {
      s.status = 401;
      CloseAfterAnswer(s);
      s.set_content("No valid access token: open the address agent-explorer serve printed when it started.\n",
                    "text/plain; charset=utf-8");
      return;
    }
    const auto [id, csrf] = sessions_.Create();
    s.set_header("Set-Cookie", std::string(kSessionCookie) + "=" + id + "; Path=/; HttpOnly; SameSite=Strict" +
                                   (tls_ ? "; Secure" : ""));
    // The token leaves the address bar (and the history) at once.
    s.set_redirect("/", 303);
  }

  std::optional<size_t> Row(const Floor& floor, const std::string& text, Response& s) {
    auto key = ParseHostKey(text);
    auto it = key ? floor.rows.find(*key) : floor.rows.end();
    if (it == floor.rows.end()) {
      Error(s, 404, "no such host on this floor");
      return std::nullopt;
    }
    return it->second;
  }

  static ViewFilter Filter(const Request& q) {
    ViewFilter f;
    f.text = q.get_param_value("text").substr(0, 256);
    f.state = q.get_param_value("state").substr(0, 32);
    f.drift_only = q.get_param_value("drift") == "1";
    return f;
  }

  // An export, written a host at a time as the connection takes it (chunked).
  void SendExport(const Request& q, Response& s, Export::Format format) {
    auto floor = engine_.floor();
    auto e = std::make_shared<Export>(floor, FilterRows(*floor, Filter(q)), format);
    s.set_header("Content-Disposition", format == Export::kCsv ? "attachment; filename=\"floor.csv\""
                                                               : "attachment; filename=\"floor.json\"");
    s.set_chunked_content_provider(format == Export::kCsv ? "text/csv; charset=utf-8" : kJsonType,
                                   [e](size_t, httplib::DataSink& sink) {
                                     std::string piece;
                                     // A few dozen hosts a chunk.
                                     while (piece.size() < 32768) {
                                       std::string next = e->Next();
                                       if (next.empty()) break;
                                       piece += next;
                                     }
                                     if (piece.empty()) {
                                       sink.done();
                                       return true;
                                     }
                                     return sink.write(piece.data(), piece.size());
                                   });
  }

  void SeatCommand(const Request& q, Response& s, const std::string& command, const std::string& head,
                   double timeout_seconds) {
    auto floor = engine_.floor();
    auto row = Row(*floor, q.matches[1], s);
    if (!row) return;
    const fleet::Host host = floor->results[*row].host;
    auto x = engine_.RunCommand(host, command, timeout_seconds);
    if (!x) return Error(s, 503, "the console is busy: too many requests wait for the agents");
    Json j;
    j["host"] = HostKey(host);
    switch (x->status) {
      case Exchange::kReplied: j["status"] = "replied"; break;
      case Exchange::kConnectFailed: j["status"] = "no connection"; break;
      case Exchange::kNoGreeting: j["status"] = "no greeting"; break;
      case Exchange::kNoReply: j["status"] = "no reply"; break;
      case Exchange::kTooLong: j["status"] = "reply too long"; break;
    }
    // At most what a fleet reply may hold.
    const std::string reply = x->reply.substr(0, fleet::kMaxReplyBytes);
    j["reply"] = reply;
    j["result"] = reply.rfind(head, 0) == 0 ? Json(reply.substr(head.size())) : Json(nullptr);
    j["error"] = x->error;
    Send(s, 200, Dump(j));
  }

  void Set(const Request& q, Response& s) {
    SetRequest r = ParseSetRequest(q.body);
    if (!r.ok) return Error(s, 400, r.error);
    auto floor = engine_.floor();
    std::vector<fleet::Host> hosts;
    for (const std::string& key : r.hosts) {
      auto it = floor->rows.find(key);
      if (it == floor->rows.end()) return Error(s, 400, "not a host of this floor: " + key);
      hosts.push_back(floor->results[it->second].host);
    }
    fleet::Options o;
    o.command = fleet::Command::kSet;
    o.values = r.values;
    o.apply = r.apply;
    std::string preview_id;
    if (r.apply) {
      std::string why;
      if (!audit_.Writable(why)) return Error(s, 503, "the audit log cannot be written (" + why + "): nothing sent");
      auto p = previews_.Take(r.preview, r.hosts, ValuePairs(r.values), why);
      if (!p) return Error(s, 409, why);
      o.hosts = p->to_apply;
    } else {
      o.hosts = hosts;
    }
    std::optional<std::vector<fleet::HostResult>> results;
    if (!o.hosts.empty()) {
      results = engine_.RunSet(o.hosts, o.values, o.apply);
      if (!results) return Error(s, 503, "the console is busy: too many requests wait for the agents");
    } else {
      results.emplace();
    }
    const fleet::Table table = fleet::BuildTable(o, *results);
    Json rows = Json::array();
    for (const auto& row : table.rows) {
      Json j;
      j["host"] = row[0] + ":" + row[1];
      for (size_t c = 2; c < table.columns.size(); ++c) j[table.columns[c]] = row[c];
      rows.push_back(std::move(j));
    }
    Json out;
    out["apply"] = r.apply;
    if (!r.apply) {
      Preview p;
      p.hosts = r.hosts;
      p.values = ValuePairs(r.values);
      for (const fleet::HostResult& h : *results)
        for (const fleet::SetResult& v : h.sets)
          if (v.result == "would change") {
            p.to_apply.push_back(h.host);
            break;
          }
      out["preview"] = previews_.Keep(std::move(p));
    }
    out["summary"] = fleet::SummaryLine(o, *results);
    out["rows"] = std::move(rows);
    if (r.apply) {
      // Every SET sent (or meant to be sent) is on the disk before the answer goes out.
      std::vector<AuditEntry> entries;
      const std::string time = TimeText(platform::SystemLocalTime());
      for (const fleet::HostResult& h : *results)
        for (size_t k = 0; k < h.sets.size(); ++k) {
          const fleet::SetResult& v = h.sets[k];
          if (v.result.empty() || v.result == "unchanged") continue;
          entries.push_back({time, q.remote_addr, HostKey(h.host), std::string(o.values[k].setting->word), v.current,
                             o.values[k].value, v.result});
        }
      std::string why;
      if (!audit_.Append(entries, why)) {
        out["audit_error"] = "the audit log could not be written: " + why;
        return Send(s, 500, Dump(out));
      }
    }
    Send(s, 200, Dump(out));
  }

  Engine& engine_;
  AuditLog& audit_;
  const ConsoleConfig& config_;
  BoundedServer& server_;
  const bool tls_;
  Sessions sessions_;
  Previews previews_;
};

#ifdef TDACLI_SERVE_TLS
std::string TlsErrors() {
  std::string out;
  while (unsigned long e = ERR_get_error()) {
    char buf[256];
    ERR_error_string_n(e, buf, sizeof buf);
    out += (out.empty() ? "" : "; ") + std::string(buf);
  }
  return out;
}
#endif

}  // namespace

bool RunConsole(Engine& engine, AuditLog& audit, const ConsoleConfig& config,
                const std::function<void(const std::string& url)>& ready, std::string& error) {
  void* tls = nullptr;
#ifdef TDACLI_SERVE_TLS
  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context(nullptr, SSL_CTX_free);
  if (!config.tls_cert.empty()) {
    context.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX* c = context.get();
    if (!c || SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION) != 1 ||
        SSL_CTX_use_certificate_chain_file(c, config.tls_cert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(c, config.tls_key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(c) != 1) {
      error = "cannot use the certificate " + fleet::EscapeControls(config.tls_cert) + " and key " +
              fleet::EscapeControls(config.tls_key) + " (" + TlsErrors() + ")";
      return false;
    }
    tls = c;
  }
#endif
  BoundedServer server(tls);
  Console console(engine, audit, config, server, tls != nullptr);
  console.Route();
  int port = config.port;
  if (port == 0) {
    port = server.bind_to_any_port(config.listen_host);
    if (port <= 0) {
      error = "cannot listen on " + config.listen_host + ":0";
      return false;
    }
  } else if (!server.bind_to_port(config.listen_host, port)) {
    error = "cannot listen on " + config.listen_host + ":" + std::to_string(port);
    return false;
  }
  ready(std::string(tls ? "https" : "http") + "://" + config.listen_host + ":" + std::to_string(port) +
        "/login?token=" + config.token);
  server.listen_after_bind();
  return true;
}

}  // namespace tdacli::explorer::web
