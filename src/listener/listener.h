#pragma once
// The command listener for Agent Explorer and the TD Server: element 0 listens; every accepted
// connection lives under a new, ever-growing index; reads, replies and closes address the newest one.
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/tcp_socket.h"

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

// The port element 0 listens on, from the second entry of the `ListeningPorts` setting.
int16_t GetListeningPort(Agent& agent);

class CommandListener {
 public:
  explicit CommandListener(Agent& agent);
  ~CommandListener();

  // Element 0.
  platform::TcpSocket& Listener() { return *listen_; }
  // Sets element 0's local port and listens; the error the control raised, if any.
  platform::SocketError Listen(uint16_t port);
  void CloseListener();

  int16_t ListenConnectionIndex = 0;
  std::string PendingProtocolData;

 private:
  Agent& agent_;
  std::unique_ptr<platform::TcpSocket> listen_;
};

}  // namespace tdacli::listener
