#pragma once
// A TCP socket control with the behaviour of the classic Winsock control the agent was designed around:
// DataArrival is raised once and not again until the data has been read with GetData(); Connect, Close
// and Error once each (Close for an orderly close by the peer, Error 10054 for a reset); ConnectionRequest again only after the pending connection was accepted (or
// refused because the handler did not accept it). GetData() returns what one read of the socket
// delivers, at most kMaxArrival bytes: a longer transfer arrives as several pieces, each announced.
//
// Bounds against hostile or broken peers: the listening socket is not watched while its own
// ConnectionRequest handler runs (a burst of connects is taken one after the other, not nested inside
// the handlers' yields); a failed accept (descriptor limit) is reported once and the listener rests for
// kAcceptBackOffMs instead of spinning on the still-ready socket; unsent output can be capped.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/event_loop.h"

namespace tdacli::platform {

// Error raised by an operation: Winsock number (0 = none) and its description.
struct SocketError {
  int number = 0;
  std::string description;
  explicit operator bool() const { return number != 0; }
};

class TcpSocket : public SocketSink {
 public:
  static constexpr size_t kMaxArrival = 65536;
  static constexpr int kAcceptBackOffMs = 1000;
  static constexpr int kOutputFull = 10055;  // WSAENOBUFS: the unsent output would pass the cap
  static constexpr int kConnReset = 10054;   // WSAECONNRESET: the peer reset the connection (Error)

  enum State {
    kClosed = 0,
    kOpen = 1,
    kListening = 2,
    kConnectionPending = 3,
    kResolvingHost = 4,
    kHostResolved = 5,
    kConnecting = 6,
    kConnected = 7,
    kClosing = 8,
    kError = 9
  };

  explicit TcpSocket(EventLoop& loop);
  ~TcpSocket() override;
  TcpSocket(const TcpSocket&) = delete;
  TcpSocket& operator=(const TcpSocket&) = delete;

  void SetLocalPort(uint16_t port) { local_port_ = port; }
  // Listen on this local address only (dotted IPv4); empty: every address.
  void SetLocalHost(std::string ip) { local_host_ = std::move(ip); }
  const std::string& LocalHost() const { return local_host_; }
  uint16_t LocalPort() const;
  void SetRemoteHost(std::string host) { remote_host_ = std::move(host); }
  const std::string& RemoteHost() const { return remote_host_; }
  void SetRemotePort(uint16_t port) { remote_port_ = port; }
  uint16_t RemotePort() const { return remote_port_; }
  int State() const { return state_; }
  std::string RemoteHostIP() const { return remote_ip_; }
  // Listening: the address of the peer whose ConnectionRequest is being raised (before Accept).
  const std::string& PendingRemoteHostIP() const { return pending_accept_ip_; }

  SocketError Listen();
  // Starts connecting to the remote host and port; the outcome arrives as Connect or Error.
  SocketError Connect();
  // Takes over the connection announced by ConnectionRequest on the listening socket `from`.
  SocketError Accept(TcpSocket& from, int64_t request_id);
  SocketError SendData(std::string_view data);
  std::string GetData();
  size_t BytesReceived() const { return peeked_; }
  void Close();
  // Ends the connection abortively: the peer sees a reset (10054) instead of an orderly close. A login
  // server simulator uses it to play a server that breaks off the conversation.
  void Reset();
  // Ends the sending side in order, after any output still queued, and goes on receiving: the peer
  // sees the end of the data, and its own close then arrives as Close. A console uses it to learn that
  // the agent has taken its departure in before it connects again.
  void ShutdownSend();

  // Caps the output waiting to be sent (0: no cap); SendData() beyond it fails with kOutputFull.
  void SetSendLimit(size_t bytes) { send_limit_ = bytes; }
  size_t PendingSendBytes() const { return send_queue_.size(); }
  // For a connection whose data nobody will read any more: while a DataArrival stays unread, the
  // socket keeps reading into a holding buffer (kMaxArrival at most, the rest is dropped) so that the
  // peer's departure is seen and raises Close. GetData() still returns the held first arrival.
  void SetDrainUnread(bool on);
  bool DrainUnread() const { return drain_unread_; }
  // Listening: whether accepting rests after a failed accept.
  bool AcceptBackingOff() const { return backing_off_; }

  std::function<void()> on_connect;
  std::function<void(int64_t request_id)> on_connection_request;
  std::function<void(size_t bytes)> on_data_arrival;
  std::function<void()> on_close;
  std::function<void(int number, const std::string& description)> on_error;
  // Listening: an accept failed (for example at the descriptor limit); accepting rests for a while.
  std::function<void(int number, const std::string& description)> on_accept_error;

  // SocketSink
  SocketHandle Handle() const override { return handle_; }
  bool WantRead() const override;
  bool WantWrite() const override;
  void OnReady(bool read, bool write, bool error) override;

  static int64_t OpenSocketCount();  // process-wide count of OS sockets held by controls

 private:
  void Register();
  void Unregister();
  void ReleaseHandle();
  void PeerClosed();
  void Fail(int number);
  void FlushSend();
  void AcceptPending();
  void StartBackOff();

  EventLoop& loop_;
  SocketHandle handle_ = kInvalidSocket;
  int state_ = kClosed;
  uint16_t local_port_ = 0;
  std::string local_host_;
  uint16_t remote_port_ = 0;
  std::string remote_host_;
  std::string remote_ip_;
  bool registered_ = false;
  bool data_notified_ = false;   // DataArrival raised, waiting for GetData()
  size_t peeked_ = 0;
  SocketHandle pending_accept_ = kInvalidSocket;  // listening: connection waiting for Accept()
  std::string pending_accept_ip_;
  int64_t next_request_id_ = 1;
  int64_t pending_request_id_ = 0;
  std::string send_queue_;
  size_t send_limit_ = 0;
  bool drain_unread_ = false;
  bool shutdown_send_ = false;    // ShutdownSend() asked: no more output once the queue is sent
  std::string held_;              // drained arrival kept for GetData()
  bool held_taken_ = false;       // the announced arrival has been moved into held_
  bool in_request_handler_ = false;
  bool backing_off_ = false;
  std::unique_ptr<Timer> backoff_timer_;
  // Listening: one socket held in reserve. At the descriptor limit it is given up for the moment the
  // failure is reported, so that the report (a log line, which opens a file) can still be written.
  SocketHandle reserve_ = kInvalidSocket;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // guards work posted to the loop
};

}  // namespace tdacli::platform
