#pragma once
// The command listener for Agent Explorer and the TD Server: element 0 listens; every accepted
// connection lives under a new, ever-growing index; reads, replies and closes address the newest one.
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "listener/allowed_consoles.h"
#include "listener/command_replies.h"
#include "platform/tcp_socket.h"
#include "state/agent.h"

namespace tdacli::listener {

class CommandListener : public CommandReplies, public OwnedControl {
 public:
  explicit CommandListener(Agent& agent);
  ~CommandListener() override;
  CommandListener(const CommandListener&) = delete;
  CommandListener& operator=(const CommandListener&) = delete;

  // Element 0.
  platform::TcpSocket& Listener() { return *listen_; }
  // Sets element 0's local port and listens; the error the control raised, if any.
  platform::SocketError Listen(uint16_t port);
  void CloseListener();
  // Tries `port` again every kRetryListenMs, without log lines, until element 0 listens (start-up
  // after its retries are spent, or a re-open that failed): the console must be able to come back.
  void KeepTryingToListen(uint16_t port);
  bool RetryingListen() const;

  static constexpr int kRetryListenMs = 30000;
  static constexpr size_t kMaxUnsentReply = 1 << 20;

  // The element at `index`; nullptr when it was never created or has been closed and released.
  platform::TcpSocket* Element(int16_t index);
  // Whether a connection was ever accepted under `index` (elements are never destroyed as such).
  bool ElementCreated(int16_t index) const;
  // State of the element as the socket control reports it; a released element is closed (0).
  int ElementState(int16_t index);
  // Remote address of the element, kept after it has been closed.
  std::string ElementRemoteHostIP(int16_t index);

  // The socket array's events (the index is the element that raised the event).
  void wsckListen_ConnectionRequest(int16_t index, int64_t request_id);
  void wsckListen_DataArrival(int16_t index, size_t bytes);
  void wsckListen_Close(int16_t index);

  // CommandReplies: both address the element at `ListenConnectionIndex`.
  void SendCommandReply(const std::string& reply, std::string_view prefix) override;
  std::string RemoteHostIP() override;
  bool ReplyConnectionUp() override;

  int16_t ListenConnectionIndex = 0;
  // Shared by all connections; bounded by kMaxPendingProtocolData (see the send-frames handler).
  std::string PendingProtocolData;
  // The administrator's optional list of consoles that may connect.
  AllowedConsoles& allowed_consoles() { return allowed_consoles_; }

 private:
  // An accepted connection. Once closed, the socket object is released and only the index of its
  // remote address stays, so that thousands of finished connections cost a few bytes each.
  struct Slot {
    std::unique_ptr<platform::TcpSocket> socket;
    uint32_t remote_ip = 0;  // index into remote_ips_
    bool created = false;
  };

  Slot* SlotAt(int16_t index);
  // The accepted connection at `n` says "|READY|"; false (logged) when the greeting cannot be sent.
  bool Greet(int16_t n, platform::TcpSocket& element);
  void OnAcceptError(int number, const std::string& description);
  void Wire(int16_t index, platform::TcpSocket& socket);
  // Closes the element's OS socket now; the object itself goes once no handler is running.
  void Release(int16_t index);
  void ReleaseUnusedOlder(int16_t index);
  // Marks the current newest connection as one that is no longer read (a newer one is coming).
  void SupersedeNewest();
  void FlushReleases();
  uint32_t InternIP(const std::string& ip);

  // Counts the listener's handlers on the stack: a socket object is never destroyed while one of
  // them (possibly its own) is running, because waits inside handlers let other events run.
  class HandlerScope;
  friend class HandlerScope;

  Agent& agent_;
  std::unique_ptr<platform::TcpSocket> listen_;
  std::vector<Slot> slots_;  // index 1..; slot 0 unused (element 0 is listen_)
  std::vector<std::string> remote_ips_;
  std::vector<int16_t> pending_release_;
  // Socket objects of reused indexes, destroyed once no handler is running.
  std::vector<std::unique_ptr<platform::TcpSocket>> retired_;
  std::unique_ptr<platform::Timer> retry_listen_;
  uint16_t retry_port_ = 0;
  int handler_depth_ = 0;
  bool release_posted_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  AllowedConsoles allowed_consoles_;
};

// The agent's console listener, as the top built it (NewAgent).
CommandListener& ListenerOf(Agent& agent);

}  // namespace tdacli::listener
