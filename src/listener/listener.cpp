#include "listener/listener.h"

#include "service/agent.h"

namespace tdacli::listener {

CommandListener::CommandListener(Agent& agent)
    : agent_(agent), listen_(std::make_unique<platform::TcpSocket>(agent.loop())) {
  listen_->SetLocalPort(5002);
}

CommandListener::~CommandListener() = default;

platform::SocketError CommandListener::Listen(uint16_t port) {
  listen_->SetLocalPort(port);
  return listen_->Listen();
}

void CommandListener::CloseListener() { listen_->Close(); }

}  // namespace tdacli::listener
