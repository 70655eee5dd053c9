#include "login_server.h"

#include <algorithm>
#include <cstdio>
#include <random>

namespace tdacli::loginsim {

namespace {

constexpr std::string_view kGreeting = "TD Agent Connect OK";
constexpr std::string_view kDisconnect = "TD Agent Disconnect OK";
constexpr int kAddressInUse = 10048;
constexpr int kAddressNotAvailable = 10049;

bool StartsWith(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }

}  // namespace

bool ParseFault(std::string_view text, Options& options) {
  if (text == "silent") options.fault = Fault::kSilent;
  else if (text == "close-mid") options.fault = Fault::kCloseMid;
  else if (text == "reset-mid") options.fault = Fault::kResetMid;
  else if (text == "unexpected") options.fault = Fault::kUnexpected;
  else if (text == "two-in-one") options.fault = Fault::kTwoInOne;
  else if (StartsWith(text, "delay=") && text.size() > 6) {
    int ms = 0;
    for (char c : text.substr(6)) {
      if (c < '0' || c > '9' || ms > 10'000'000) return false;
      ms = ms * 10 + (c - '0');
    }
    options.fault = Fault::kDelay;
    options.delay_ms = ms;
  } else {
    return false;
  }
  return true;
}

std::string EscapeBytes(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (unsigned char c : bytes) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\r': out += "\\r"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c >= 0x20 && c < 0x7f) {
          out += static_cast<char>(c);
        } else {
          char hex[5];
          std::snprintf(hex, sizeof hex, "\\x%02X", c);
          out += hex;
        }
    }
  }
  return out;
}

std::string FormatEntry(const TranscriptEntry& e) {
  std::string line(1, '[');
  line += std::to_string(e.connection);
  line += "] ";
  switch (e.kind) {
    case TranscriptEntry::Kind::kReceived:
      line += "C> ";
      line += EscapeBytes(e.bytes);
      break;
    case TranscriptEntry::Kind::kSent:
      line += "S> ";
      line += EscapeBytes(e.bytes);
      break;
    case TranscriptEntry::Kind::kEvent:
      line += "-- ";
      line += e.bytes;
      break;
  }
  return line;
}

LoginServer::LoginServer(platform::EventLoop& loop, UserTable users, Options options)
    : loop_(loop), users_(std::move(users)), options_(std::move(options)), listener_(loop) {
  listener_.on_connection_request = [this](int64_t id) { OnConnectionRequest(id); };
}

LoginServer::~LoginServer() { Stop(); }

platform::SocketError LoginServer::Start() {
  listener_.SetLocalHost(options_.address);
  listener_.SetLocalPort(options_.port);
  platform::SocketError error = listener_.Listen();
  if (error)
    Record(TranscriptEntry::Kind::kEvent, 0,
           "cannot listen on " + options_.address + ":" + std::to_string(options_.port) + ": " +
               std::to_string(error.number) + " " + error.description);
  else
    Record(TranscriptEntry::Kind::kEvent, 0, "listening on " + options_.address + ":" + std::to_string(options_.port));
  return error;
}

platform::SocketError LoginServer::StartOnFreeLoopback() {
  std::random_device seed;
  const int first = 2 + static_cast<int>(seed() % 253);
  platform::SocketError error;
  for (int k = 0; k < 253; ++k) {
    const int x = 2 + (first - 2 + k) % 253;
    const std::string address = "127.0.0." + std::to_string(x);
    listener_.SetLocalHost(address);
    listener_.SetLocalPort(options_.port);
    error = listener_.Listen();
    if (!error) {
      options_.address = address;
      Record(TranscriptEntry::Kind::kEvent, 0, "listening on " + address + ":" + std::to_string(options_.port));
      return error;
    }
    if (error.number != kAddressInUse && error.number != kAddressNotAvailable) break;
  }
  return error;
}

void LoginServer::Stop() {
  listener_.Close();
  for (auto& c : connections_) {
    if (c->finished) continue;
    c->finished = true;
    c->timer.SetEnabled(false);
    c->queue.clear();
    c->socket.Close();
  }
}

bool LoginServer::Finished() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return finished_;
}

int LoginServer::Connections() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return next_id_ - 1;
}

std::vector<TranscriptEntry> LoginServer::Transcript() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return transcript_;
}

std::vector<std::string> LoginServer::TranscriptLines() const {
  std::vector<std::string> lines;
  for (const auto& e : Transcript()) lines.push_back(FormatEntry(e));
  return lines;
}

std::vector<std::string> LoginServer::Requests() const {
  std::vector<std::string> out;
  for (const auto& e : Transcript())
    if (e.kind == TranscriptEntry::Kind::kReceived) out.push_back(e.bytes);
  return out;
}

std::vector<std::string> LoginServer::Replies() const {
  std::vector<std::string> out;
  for (const auto& e : Transcript())
    if (e.kind == TranscriptEntry::Kind::kSent) out.push_back(e.bytes);
  return out;
}

void LoginServer::Record(TranscriptEntry::Kind kind, int connection, std::string bytes) {
  TranscriptEntry entry{kind, connection, std::move(bytes)};
  {
    std::lock_guard<std::mutex> lock(mutex_);
    transcript_.push_back(entry);
  }
  if (on_line) on_line(FormatEntry(entry));
}

void LoginServer::Purge() {
  // Only at a new connection: no handler of a finished connection can be running then.
  connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                    [](const std::unique_ptr<Connection>& c) { return c->finished; }),
                     connections_.end());
}

void LoginServer::OnConnectionRequest(int64_t request_id) {
  Purge();
  auto owned = std::make_unique<Connection>(loop_);
  Connection& c = *owned;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    c.id = next_id_++;
  }
  if (platform::SocketError error = c.socket.Accept(listener_, request_id)) {
    Record(TranscriptEntry::Kind::kEvent, c.id, "cannot accept: " + error.description);
    return;
  }
  Record(TranscriptEntry::Kind::kEvent, c.id, "accepted from " + c.socket.RemoteHostIP());
  c.socket.on_data_arrival = [this, &c](size_t) { OnRequest(c, c.socket.GetData()); };
  c.socket.on_close = [this, &c] { Finish(c, "closed by the client"); };
  c.socket.on_error = [this, &c](int number, const std::string& description) {
    Finish(c, "error " + std::to_string(number) + ": " + description);
  };
  c.timer.on_tick = [this, &c] {
    c.timer.SetEnabled(false);
    Flush(c);
  };
  connections_.push_back(std::move(owned));
  if (options_.once) listener_.Close();  // one connection only
  if (options_.fault != Fault::kSilent) Enqueue(c, std::string(kGreeting), 0);
}

void LoginServer::OnRequest(Connection& c, std::string data) {
  Record(TranscriptEntry::Kind::kReceived, c.id, data);
  if (c.finished || options_.fault == Fault::kSilent) return;
  ++c.requests;
  if (c.requests == 1 && options_.fault == Fault::kCloseMid) {
    Finish(c, "closed by the server in the middle of the exchange");
    return;
  }
  if (c.requests == 1 && options_.fault == Fault::kResetMid) {
    c.socket.Reset();
    Finish(c, "reset by the server in the middle of the exchange");
    return;
  }
  if (c.requests == 1 && options_.fault == Fault::kUnexpected) {
    Enqueue(c, std::string(kUnexpectedReply), 0);
    return;
  }
  Answer(c, data);
}

void LoginServer::Answer(Connection& c, const std::string& request) {
  const UserRecord* user = users_.Find(c.user);
  // With the two-in-one fault the "100SCREEN" push rides in front of the reply in the same write.
  auto glued = [&](std::string reply) {
    if (options_.fault != Fault::kTwoInOne) return reply;
    return "100SCREEN" + (user && user->hundred_screen ? *user->hundred_screen : std::string()) + reply;
  };

  if (request == kDisconnect) {
    Enqueue(c, "", 0, /*close_after=*/true);
  } else if (request == "TDLIVEID") {
    // Pushes go out on their own, each followed by a pause so that the client reads it alone.
    int offset = 0;
    // With the two-in-one fault the push is kept back for the reply it is glued to.
    if (user && user->hundred_screen && options_.fault != Fault::kTwoInOne) {
      Enqueue(c, "100SCREEN" + *user->hundred_screen, offset);
      offset += options_.push_gap_ms;
    }
    if (user && user->listen_ports) {
      Enqueue(c, "LISTENPORTS" + *user->listen_ports, offset);
      offset += options_.push_gap_ms;
    }
    Enqueue(c, "TDLIVEID=" + (user ? user->live_id : std::string()), offset);
  } else if (request == "SERVERTEMP") {
    Enqueue(c, glued("SERVERTEMP" + (user ? user->server_temp : std::string("NoMatchingWinName"))), 0);
  } else if (request == "LOCALTEMP") {
    Enqueue(c, "LOCALTEMP" + (user ? user->local_temp : std::string()), 0);
  } else if (request == "KEKINFO") {
    Enqueue(c, "KEKINFO" + (user ? user->kek_info : std::string()), 0);
  } else if (request == "VALIDIPMASK") {
    Enqueue(c, "VALIDIPMASK" + (user ? user->valid_ip_mask : std::string()), 0);
  } else if (request == "USETRACE") {
    std::string value = user ? user->trace : std::string("False");
    if (user && user->webcam) value += "webcam" + *user->webcam;
    Enqueue(c, "AGENTTRACE" + value, 0);
  } else if (StartsWith(request, "Logoff")) {
    const std::string rest = request.substr(6);
    const size_t colon = rest.rfind(':');
    c.user = colon == std::string::npos ? rest : rest.substr(0, colon);
    user = users_.Find(c.user);
    Enqueue(c, glued(user ? "LOGOFF=OKAY" : "LOGOFF=NoMatchingWinName"), 0);
  } else if (StartsWith(request, "STATUS")) {
    Enqueue(c, glued("STATUS OK"), 0);
  } else if (StartsWith(request, "ID")) {
    c.user = request.substr(2);
    Enqueue(c, "ID OK", 0);
  } else if (StartsWith(request, "IP")) {
    Enqueue(c, "IP Addr OK", 0);
  } else if (StartsWith(request, "EX")) {
    Enqueue(c, "EXT OK", 0);
  } else {
    Record(TranscriptEntry::Kind::kEvent, c.id, "not a request of the protocol, not answered");
  }
}

void LoginServer::Enqueue(Connection& c, std::string bytes, int offset_ms, bool close_after) {
  const int delay = options_.fault == Fault::kDelay ? options_.delay_ms : 0;
  c.queue.push_back({loop_.clock().NowMs() + delay + offset_ms, std::move(bytes), close_after});
  Flush(c);
}

void LoginServer::Flush(Connection& c) {
  const int64_t now = loop_.clock().NowMs();
  while (!c.queue.empty() && !c.finished) {
    if (c.queue.front().due_ms > now) {
      Arm(c);
      return;
    }
    Outgoing out = std::move(c.queue.front());
    c.queue.pop_front();
    if (!out.bytes.empty()) {
      Record(TranscriptEntry::Kind::kSent, c.id, out.bytes);
      if (platform::SocketError error = c.socket.SendData(out.bytes)) {
        Finish(c, "cannot send: " + std::to_string(error.number) + " " + error.description);
        return;
      }
    }
    if (out.close_after) {
      Finish(c, "closed by the server");
      return;
    }
  }
}

void LoginServer::Arm(Connection& c) {
  const int64_t wait = c.queue.front().due_ms - loop_.clock().NowMs();
  c.timer.SetEnabled(false);
  c.timer.SetInterval(static_cast<int>(std::max<int64_t>(1, wait)));
  c.timer.SetEnabled(true);
}

void LoginServer::Finish(Connection& c, const std::string& why) {
  if (c.finished) return;
  c.finished = true;
  c.timer.SetEnabled(false);
  c.queue.clear();
  c.socket.Close();
  Record(TranscriptEntry::Kind::kEvent, c.id, why);
  if (options_.once) {
    listener_.Close();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
    }
    if (on_finished) on_finished();
  }
}

LoginServerThread::LoginServerThread(UserTable users, Options options)
    : clock_(platform::MakeSystemClock()),
      loop_(std::make_unique<platform::EventLoop>(*clock_)),
      server_(std::make_unique<LoginServer>(*loop_, std::move(users), std::move(options))) {}

LoginServerThread::~LoginServerThread() { Stop(); }

platform::SocketError LoginServerThread::Start() { return Run(server_->Start()); }

platform::SocketError LoginServerThread::StartOnFreeLoopback() { return Run(server_->StartOnFreeLoopback()); }

platform::SocketError LoginServerThread::Run(platform::SocketError error) {
  // The listener is set up before the thread starts; from then on only the thread touches the loop.
  if (!error) thread_ = std::thread([this] { loop_->Run(); });
  return error;
}

void LoginServerThread::Stop() {
  if (!thread_.joinable()) return;
  loop_->Post([this] {
    server_->Stop();
    loop_->Quit();
  });
  thread_.join();
}

}  // namespace tdacli::loginsim
