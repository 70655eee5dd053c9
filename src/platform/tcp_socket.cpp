#include "platform/tcp_socket.h"

#include <algorithm>
#include <atomic>
#include <memory>

#include "platform/socket_api.h"

namespace tdacli::platform {

namespace {
std::atomic<int64_t> g_open_sockets{0};

// Errors of the control itself (not of the network), as the classic control numbers them.
constexpr int kWrongState = 40006;
constexpr int kInvalidOperation = 40020;

SocketError Err(int number) {
  if (number == kWrongState)
    return {number, "Wrong protocol or connection state for the requested transaction or request"};
  if (number == kInvalidOperation) return {number, "Invalid operation at current state"};
  return {number, sockapi::Describe(number)};
}

SocketHandle Track(SocketHandle h) {
  if (h != kInvalidSocket) ++g_open_sockets;
  return h;
}
void Release(SocketHandle& h) {
  if (h == kInvalidSocket) return;
  sockapi::CloseSocket(h);
  --g_open_sockets;
  h = kInvalidSocket;
}
}  // namespace

int64_t TcpSocket::OpenSocketCount() { return g_open_sockets.load(); }

TcpSocket::TcpSocket(EventLoop& loop) : loop_(loop) { sockapi::Startup(); }

TcpSocket::~TcpSocket() {
  Unregister();
  Release(reserve_);
  Release(pending_accept_);
  Release(handle_);
}

void TcpSocket::Register() {
  if (!registered_) {
    loop_.AddSink(this);
    registered_ = true;
  }
}

void TcpSocket::Unregister() {
  if (registered_) {
    loop_.RemoveSink(this);
    registered_ = false;
  }
}

uint16_t TcpSocket::LocalPort() const {
  if (handle_ != kInvalidSocket && (state_ == kListening || state_ == kConnected)) {
    uint16_t p = sockapi::LocalPort(handle_);
    if (p != 0) return p;
  }
  return local_port_;
}

bool TcpSocket::WantRead() const {
  if (state_ == kListening) return pending_accept_ == kInvalidSocket && !in_request_handler_ && !backing_off_;
  if (state_ == kConnected) return !data_notified_ || drain_unread_;
  return false;
}

void TcpSocket::SetDrainUnread(bool on) { drain_unread_ = on; }

void TcpSocket::StartBackOff() {
  if (!backoff_timer_) {
    backoff_timer_ = std::make_unique<Timer>(loop_);
    backoff_timer_->on_tick = [this] {
      backoff_timer_->SetEnabled(false);
      backing_off_ = false;
    };
  }
  backing_off_ = true;
  backoff_timer_->SetInterval(kAcceptBackOffMs);
  backoff_timer_->SetEnabled(true);
}

bool TcpSocket::WantWrite() const {
  return state_ == kConnecting || (state_ == kConnected && !send_queue_.empty());
}

SocketError TcpSocket::Listen() {
  if (state_ != kClosed) return Err(kInvalidOperation);
  int error = 0;
  SocketHandle h = Track(sockapi::CreateTcp(&error));
  if (h == kInvalidSocket) return Err(error);
  error = local_host_.empty() ? sockapi::Bind(h, local_port_) : sockapi::BindTo(h, local_host_, local_port_);
  if (error != 0 || (error = sockapi::ListenOn(h)) != 0) {
    Release(h);
    return Err(error);
  }
  handle_ = h;
  state_ = kListening;
  if (reserve_ == kInvalidSocket) reserve_ = Track(sockapi::CreateTcp(&error));
  Register();
  return {};
}

SocketError TcpSocket::Connect() {
  if (state_ != kClosed) return Err(kInvalidOperation);
  std::string ip = sockapi::ResolveIPv4(remote_host_);
  if (ip.empty()) {
    state_ = kResolvingHost;
    loop_.Post([this, alive = std::weak_ptr<bool>(alive_)] {
      if (!alive.expired() && state_ == kResolvingHost) Fail(sockapi::kHostNotFound);
    });
    return {};
  }
  int error = 0;
  SocketHandle h = Track(sockapi::CreateTcp(&error));
  if (h == kInvalidSocket) return Err(error);
  handle_ = h;
  remote_ip_ = ip;
  int rc = sockapi::ConnectStart(h, ip, remote_port_);
  if (rc == 0 || rc == sockapi::kInProgress || rc == sockapi::kWouldBlock) {
    state_ = kConnecting;  // completion (even an immediate one) is reported by the poller
    Register();
    return {};
  }
  state_ = kConnecting;
  Register();
  loop_.Post([this, rc, h, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired() && state_ == kConnecting && handle_ == h) Fail(rc);
  });
  return {};
}

SocketError TcpSocket::Accept(TcpSocket& from, int64_t request_id) {
  if (state_ != kClosed) return Err(kInvalidOperation);
  if (from.pending_accept_ == kInvalidSocket || from.pending_request_id_ != request_id)
    return Err(kInvalidOperation);
  handle_ = from.pending_accept_;
  remote_ip_ = from.pending_accept_ip_;
  from.pending_accept_ = kInvalidSocket;
  from.pending_request_id_ = 0;
  state_ = kConnected;
  data_notified_ = false;
  Register();
  return {};
}

SocketError TcpSocket::SendData(std::string_view data) {
  if (state_ != kConnected || shutdown_send_) return Err(kWrongState);
  if (send_limit_ != 0 && !send_queue_.empty() && send_queue_.size() + data.size() > send_limit_)
    return Err(kOutputFull);
  if (!send_queue_.empty()) {
    send_queue_.append(data);
    return {};
  }
  size_t sent = 0;
  while (sent < data.size()) {
    int error = 0;
    long n = sockapi::Send(handle_, data.substr(sent), &error);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (error == sockapi::kWouldBlock) break;
    return Err(error);
  }
  if (sent < data.size()) {
    if (send_limit_ != 0 && data.size() - sent > send_limit_) return Err(kOutputFull);
    send_queue_.assign(data.substr(sent));
  }
  return {};
}

void TcpSocket::FlushSend() {
  while (!send_queue_.empty()) {
    int error = 0;
    long n = sockapi::Send(handle_, send_queue_, &error);
    if (n > 0) {
      send_queue_.erase(0, static_cast<size_t>(n));
      continue;
    }
    if (error != sockapi::kWouldBlock) {
      send_queue_.clear();
      Fail(error);
    }
    return;
  }
  if (shutdown_send_) sockapi::ShutdownSend(handle_);
}

void TcpSocket::ShutdownSend() {
  if (state_ != kConnected || shutdown_send_) return;
  shutdown_send_ = true;
  if (send_queue_.empty()) sockapi::ShutdownSend(handle_);
}

std::string TcpSocket::GetData() {
  std::string out;
  const bool held = held_taken_;
  held_taken_ = false;
  if (held) {
    out.swap(held_);
  } else if (state_ == kConnected || state_ == kClosing) {
    // One read, as the socket delivers it: a peer cannot make one arrival grow without bound.
    out.resize(kMaxArrival);
    int error = 0;
    long n = sockapi::Recv(handle_, out.data(), static_cast<long>(out.size()), false, &error);
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  }
  data_notified_ = false;
  peeked_ = 0;
  return out;
}

void TcpSocket::ReleaseHandle() {
  Unregister();
  Release(reserve_);
  Release(pending_accept_);
  Release(handle_);
}

void TcpSocket::Reset() {
  // With a zero linger time the close below discards unsent data and sends a reset, not a FIN.
  if (handle_ != kInvalidSocket && (state_ == kConnected || state_ == kClosing)) sockapi::SetAbortiveClose(handle_);
  Close();
}

void TcpSocket::Close() {
  ReleaseHandle();
  if (backoff_timer_) backoff_timer_->SetEnabled(false);
  backing_off_ = false;
  held_.clear();
  held_taken_ = false;
  state_ = kClosed;
  data_notified_ = false;
  peeked_ = 0;
  send_queue_.clear();
  shutdown_send_ = false;
  pending_request_id_ = 0;
}

void TcpSocket::AcceptPending() {
  // Several pending connections are taken in one go; each is announced only after the handler of
  // the previous one has returned, so a burst never nests handlers.
  std::weak_ptr<bool> alive = alive_;
  for (int taken = 0; taken < 64; ++taken) {
    int err = 0;
    SocketHandle h = Track(sockapi::Accept(handle_, &err));
    if (h == kInvalidSocket) {
      if (err == sockapi::kWouldBlock || err == 0) return;
      // A peer that gave up before being accepted costs nothing; anything else (the descriptor limit)
      // would leave the socket ready for ever: report it and rest instead of spinning.
      if (err == 10053 || err == sockapi::kConnReset) continue;
      StartBackOff();
      SocketError e = Err(err);
      Release(reserve_);
      if (on_accept_error) on_accept_error(e.number, e.description);
      if (alive.expired()) return;
      int ignored = 0;
      if (reserve_ == kInvalidSocket && state_ == kListening) reserve_ = Track(sockapi::CreateTcp(&ignored));
      return;
    }
    pending_accept_ = h;
    pending_accept_ip_ = sockapi::PeerAddress(h);
    pending_request_id_ = next_request_id_++;
    const int64_t id = pending_request_id_;
    in_request_handler_ = true;
    if (on_connection_request) on_connection_request(id);
    if (alive.expired()) return;
    in_request_handler_ = false;
    // A request the handler did not take is refused, so the next one can be announced.
    if (pending_accept_ != kInvalidSocket && pending_request_id_ == id) {
      Release(pending_accept_);
      pending_request_id_ = 0;
    }
    if (state_ != kListening || backing_off_) return;
  }
}

void TcpSocket::PeerClosed() {
  state_ = kClosing;
  Unregister();
  if (on_close) on_close();
}

void TcpSocket::Fail(int number) {
  state_ = kError;
  Unregister();
  SocketError e = Err(number);
  if (on_error) on_error(e.number, e.description);
}

void TcpSocket::OnReady(bool read, bool write, bool error) {
  switch (state_) {
    case kConnecting: {
      if (!write && !error) return;
      int err = sockapi::PendingError(handle_);
      if (err == 0 && write) {
        state_ = kConnected;
        std::string peer = sockapi::PeerAddress(handle_);
        if (!peer.empty()) remote_ip_ = peer;
        if (on_connect) on_connect();
      } else {
        Fail(err != 0 ? err : sockapi::kConnRefused);
      }
      return;
    }
    case kListening: {
      if (!read || pending_accept_ != kInvalidSocket || in_request_handler_ || backing_off_) return;
      AcceptPending();
      return;
    }
    case kConnected: {
      if (write && !send_queue_.empty()) FlushSend();
      if (state_ != kConnected || (!read && !error)) return;
      char buf[kMaxArrival];
      if (data_notified_) {
        if (!drain_unread_) return;
        // Nobody reads this connection any more: keep its first arrival, drop the rest, and see the
        // peer go so that its socket can be released.
        int err = 0;
        // The announced arrival is taken first, exactly as it was announced; later data is dropped.
        const long want = held_taken_ ? static_cast<long>(sizeof buf) : static_cast<long>(std::max<size_t>(1, peeked_));
        long n = sockapi::Recv(handle_, buf, want, false, &err);
        if (n > 0) {
          if (!held_taken_) held_.assign(buf, static_cast<size_t>(n));
          held_taken_ = true;
        } else if (n == 0) {
          PeerClosed();
        } else if (err != sockapi::kWouldBlock) {
          Fail(err);  // a reset too: the peer did not close, the connection broke
        }
        return;
      }
      int err = 0;
      long n = sockapi::Recv(handle_, buf, sizeof buf, true, &err);
      if (n > 0) {
        data_notified_ = true;
        peeked_ = static_cast<size_t>(n);
        if (on_data_arrival) on_data_arrival(peeked_);
      } else if (n == 0) {
        PeerClosed();
      } else if (err != sockapi::kWouldBlock) {
        // A reset (10054) is an error, as the classic control reports it; only an orderly close is Close.
        Fail(err);
      }
      return;
    }
    default:
      return;
  }
}

}  // namespace tdacli::platform
