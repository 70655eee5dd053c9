#include "listener/listener.h"

#include <exception>
#include <limits>

#include "common/errors.h"
#include "common/logging.h"
#include "listener/dispatch.h"
#include "state/agent.h"


namespace tdacli::listener {

namespace {

// The line of everything that goes wrong with a connection request.
std::string ConnectionRequestError(long number, const std::string& description) {
  return "wsckListen_ConnectionRequest() Error - " + std::to_string(number) + ":" + description;
}

}  // namespace

class CommandListener::HandlerScope {
 public:
  explicit HandlerScope(CommandListener& l) : l_(l) { ++l_.handler_depth_; }
  ~HandlerScope() {
    if (--l_.handler_depth_ == 0 && (!l_.pending_release_.empty() || !l_.retired_.empty()) && !l_.release_posted_) {
      l_.release_posted_ = true;
      l_.agent_.loop().Post([this_listener = &l_, alive = std::weak_ptr<bool>(l_.alive_)] {
        if (!alive.expired()) this_listener->FlushReleases();
      });
    }
  }
  HandlerScope(const HandlerScope&) = delete;
  HandlerScope& operator=(const HandlerScope&) = delete;

 private:
  CommandListener& l_;
};

CommandListener::CommandListener(Agent& agent)
    : agent_(agent), listen_(std::make_unique<platform::TcpSocket>(agent.loop())) {
  listen_->SetLocalPort(5002);
  listen_->on_connection_request = [this](int64_t request_id) {
    HandlerScope scope(*this);
    wsckListen_ConnectionRequest(0, request_id);
  };
  listen_->on_accept_error = [this](int number, const std::string& description) {
    OnAcceptError(number, description);
  };
}

CommandListener::~CommandListener() = default;

CommandListener& ListenerOf(Agent& agent) { return static_cast<CommandListener&>(*agent.console_listener()); }

void CommandListener::OnAcceptError(int number, const std::string& description) {
  // The request could not even be taken (for example at the descriptor limit): the same line as a
  // failed accept; the socket control rests a second before it tries again instead of spinning.
  LogMessage(agent_, ConnectionRequestError(number, description), "Error");
}

void CommandListener::KeepTryingToListen(uint16_t port) {
  retry_port_ = port;
  if (!retry_listen_) {
    retry_listen_ = std::make_unique<platform::Timer>(agent_.loop());
    retry_listen_->on_tick = [this] {
      if (listen_->State() == platform::TcpSocket::kListening) {
        retry_listen_->SetEnabled(false);
        return;
      }
      listen_->Close();
      if (!Listen(retry_port_)) retry_listen_->SetEnabled(false);
    };
  }
  retry_listen_->SetInterval(kRetryListenMs);
  retry_listen_->SetEnabled(true);
}

bool CommandListener::RetryingListen() const { return retry_listen_ && retry_listen_->Enabled(); }

platform::SocketError CommandListener::Listen(uint16_t port) {
  listen_->SetLocalPort(port);
  return listen_->Listen();
}

void CommandListener::CloseListener() { listen_->Close(); }

CommandListener::Slot* CommandListener::SlotAt(int16_t index) {
  if (index <= 0 || static_cast<size_t>(index) >= slots_.size()) return nullptr;
  return &slots_[static_cast<size_t>(index)];
}

platform::TcpSocket* CommandListener::Element(int16_t index) {
  if (index == 0) return listen_.get();
  Slot* s = SlotAt(index);
  return s ? s->socket.get() : nullptr;
}

bool CommandListener::ElementCreated(int16_t index) const {
  if (index == 0) return true;
  return index > 0 && static_cast<size_t>(index) < slots_.size() && slots_[static_cast<size_t>(index)].created;
}

int CommandListener::ElementState(int16_t index) {
  platform::TcpSocket* s = Element(index);
  return s ? s->State() : platform::TcpSocket::kClosed;
}

std::string CommandListener::ElementRemoteHostIP(int16_t index) {
  if (index == 0) return listen_->RemoteHostIP();
  Slot* s = SlotAt(index);
  if (!s || !s->created) return "";
  if (s->socket) return s->socket->RemoteHostIP();
  return s->remote_ip < remote_ips_.size() ? remote_ips_[s->remote_ip] : std::string();
}

uint32_t CommandListener::InternIP(const std::string& ip) {
  // Connections come from a handful of consoles and servers: the list stays tiny.
  for (size_t i = 0; i < remote_ips_.size(); ++i)
    if (remote_ips_[i] == ip) return static_cast<uint32_t>(i);
  remote_ips_.push_back(ip);
  return static_cast<uint32_t>(remote_ips_.size() - 1);
}

void CommandListener::Wire(int16_t index, platform::TcpSocket& socket) {
  socket.on_data_arrival = [this, index](size_t bytes) {
    HandlerScope scope(*this);
    try {
      wsckListen_DataArrival(index, bytes);
    } catch (...) {
      // A failing command ends its own handling without reply or log line; the listener serves on.
    }
    // Data of a connection that is not the newest is never read: its socket drains from now on, so
    // that its peer's departure is still seen and the socket released.
    if (index != ListenConnectionIndex)
      if (platform::TcpSocket* element = Element(index); element && element->State() == platform::TcpSocket::kConnected)
        element->SetDrainUnread(true);
  };
  socket.SetSendLimit(kMaxUnsentReply);
  socket.on_close = [this, index] {
    HandlerScope scope(*this);
    wsckListen_Close(index);
    ReleaseUnusedOlder(index);
  };
  socket.on_error = [this, index](int number, const std::string&) {
    HandlerScope scope(*this);
    // A console that resets its connection has left as surely as one that closed it: the same Close.
    if (number == platform::TcpSocket::kConnReset) wsckListen_Close(index);
    ReleaseUnusedOlder(index);
  };
}

void CommandListener::wsckListen_ConnectionRequest(int16_t index, int64_t request_id) {
  if (index != 0) return;
  // A peer the administrator has not listed is refused (closed) before the greeting; no element is
  // created for it, so the newest console stays the one that is served.
  if (!allowed_consoles_.Admit(agent_, listen_->PendingRemoteHostIP())) return;
  auto fault = [this](long number, const std::string& description) {
    LogMessage(agent_, ConnectionRequestError(number, description), "Error");
  };
  const auto text = [](const TrappedError& e) { return ConnectionRequestError(e.number, e.description); };
  TrapAndLog(agent_, text, [&] {
    if (ListenConnectionIndex == std::numeric_limits<int16_t>::max()) {
      // The 16-bit counter cannot go on. The fault is logged and this request is refused (the socket
      // control closes it), and the counter starts again at 1 so that the listener serves for ever;
      // a reused index has its old connection closed first.
      fault(6, "Overflow");
      SupersedeNewest();
      ListenConnectionIndex = 0;
      return;
    }
    SupersedeNewest();
    ++ListenConnectionIndex;
    const int16_t n = ListenConnectionIndex;
    if (slots_.size() <= static_cast<size_t>(n)) slots_.resize(static_cast<size_t>(n) + 1);
    Slot& slot = slots_[static_cast<size_t>(n)];
    if (slot.socket) {
      slot.socket->Close();
      retired_.push_back(std::move(slot.socket));
    }
    slot.created = true;
    slot.socket = std::make_unique<platform::TcpSocket>(agent_.loop());
    platform::TcpSocket& element = *slot.socket;
    Wire(n, element);
    // The connection before this one can no longer be addressed; if its peer is already gone, its
    // socket is of no further use.
    ReleaseUnusedOlder(static_cast<int16_t>(n - 1));
    element.SetLocalPort(0);
    if (platform::SocketError e = element.Accept(*listen_, request_id)) {
      fault(e.number, e.description);
      Release(n);
      return;
    }
    slot.remote_ip = InternIP(element.RemoteHostIP());
    if (!Greet(n, element)) return;
    agent_.DoEvents();
  });
}

bool CommandListener::Greet(int16_t /*n*/, platform::TcpSocket& element) {
  if (platform::SocketError e = element.SendData("|READY|")) {
    LogMessage(agent_, ConnectionRequestError(e.number, e.description), "Error");
    return false;
  }
  return true;
}

void CommandListener::SupersedeNewest() {
  // The newest connection is about to become an older one: nothing reads it any more, so its socket
  // keeps draining (its first unread arrival is held) until its peer goes, and is then released.
  platform::TcpSocket* previous = ListenConnectionIndex > 0 ? Element(ListenConnectionIndex) : nullptr;
  if (previous && previous->State() == platform::TcpSocket::kConnected) previous->SetDrainUnread(true);
}

void CommandListener::wsckListen_DataArrival(int16_t /*index*/, size_t /*bytes*/) {
  // Always the newest connection, not the one that raised the event: with one console at a time
  // they are the same, and a second console takes over from the first.
  platform::TcpSocket* element = Element(ListenConnectionIndex);
  const std::string data = element ? element->GetData() : std::string();
  DispatchCommand(agent_, data, *this);
}

void CommandListener::wsckListen_Close(int16_t /*index*/) {
  const auto text = [](const TrappedError& e) {
    return "wsckListen_close() Error - " + std::to_string(e.number) + ":" + e.description;
  };
  TrapAndLog(agent_, text, [&] {
    if (ListenConnectionIndex == 0) {
      // After the counter started again, an old connection's close must not take the listener with
      // it: element 0 is only closed while no connection was ever made.
      if (slots_.size() <= 1) listen_->Close();
      return;
    }
    Release(ListenConnectionIndex);
  });
}

void CommandListener::SendCommandReply(const std::string& reply, std::string_view prefix) {
  platform::TcpSocket* element = Element(ListenConnectionIndex);
  if (element && element->State() == platform::TcpSocket::kConnected) {
    if (platform::SocketError e = element->SendData(reply); e.number == platform::TcpSocket::kOutputFull) {
      // A peer that sends commands but never reads would make the replies pile up without end.
      LogMessage(agent_,
                 "Closing connection to AgentExplorer (IP = " + ElementRemoteHostIP(ListenConnectionIndex) +
                     "): more than " + std::to_string(kMaxUnsentReply) + " bytes of replies were not taken.",
                 "Warning");
      Release(ListenConnectionIndex);
    }
    return;
  }
  LogMessage(agent_, std::string(prefix) + ElementRemoteHostIP(ListenConnectionIndex) + ") already disconnected!",
             "Warning");
}

bool CommandListener::ReplyConnectionUp() {
  platform::TcpSocket* element = Element(ListenConnectionIndex);
  return element && element->State() == platform::TcpSocket::kConnected;
}

std::string CommandListener::RemoteHostIP() { return ElementRemoteHostIP(ListenConnectionIndex); }

void CommandListener::Release(int16_t index) {
  Slot* s = SlotAt(index);
  if (!s || !s->socket) return;
  s->socket->Close();
  pending_release_.push_back(index);
  if (handler_depth_ == 0) FlushReleases();
}

void CommandListener::ReleaseUnusedOlder(int16_t index) {
  if (index <= 0 || index == ListenConnectionIndex) return;  // after a restart of the counter, higher indexes are older
  Slot* s = SlotAt(index);
  if (!s || !s->socket || s->socket->State() == platform::TcpSocket::kConnected) return;
  Release(index);
}

void CommandListener::FlushReleases() {
  release_posted_ = false;
  if (handler_depth_ != 0) return;  // the outermost handler posts again when it ends
  retired_.clear();
  std::vector<int16_t> pending;
  pending.swap(pending_release_);
  for (int16_t index : pending) {
    Slot* s = SlotAt(index);
    if (s && s->socket && s->socket->State() == platform::TcpSocket::kClosed) s->socket.reset();
  }
}

}  // namespace tdacli::listener
