// Sequences of connects, arrivals and closes against the real listener of an agent on loopback, with
// the bounds in force: each input is a little program of console actions. After every input all
// consoles are closed and the agent must have released every socket it accepted, still listen, and
// never have nested its event loop more than the burst bound allows.
//
// Program bytes: op = byte % 6
//   0 connect a new console (at most 6 at once; the oldest is closed to make room)
//   1 send: console = next byte, length = next byte (x 1, or x 1024 when the op byte is >= 128), the
//     text is taken from the input that follows
//   2 close: console = next byte
//   3 run the agent's loop for a few rounds
//   4 seed the connection counter near its 16-bit limit
//   5 a console sends and closes at once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_agent.h"
#include "listener/listener.h"
#include "platform/tcp_socket.h"
#include "service/wiring.h"

namespace {

using namespace tdacli;
using platform::TcpSocket;

struct World : fuzzing::FuzzAgent {
  // No real time is spent waiting for peers: they all live in this process, and loopback delivers a
  // connect, a send or a close within the call that makes it.
  World() : FuzzAgent("listener", 0, fuzzing::kSettings) {
    service_control.answer = 1060;  // every message to a sibling fails as for a service not installed
  }
};

struct Console {
  explicit Console(Agent& agent) : socket(agent.loop()) {
    socket.on_data_arrival = [this](size_t) { received += socket.GetData().size(); };
  }
  TcpSocket socket;
  size_t received = 0;
};

// Up to 255 KiB of "|GETINFO|" commands, built once: appending them piece by piece for every input
// cost more than the agent's own work.
const std::string& Filler() {
  static const std::string filler = [] {
    std::string f;
    while (f.size() < 255 * 1024) f += "|GETINFO|";
    return f;
  }();
  return filler;
}

// A console must not move the listener to a port of this machine that others use, nor send the
// agent's logins to a host named by random bytes (they stay on loopback, where nothing answers).
std::string Tame(std::string text) {
  for (const char* word : {"SETLISTEN", "LISTENINGPORTS", "SETSERVER", "SETALL"})
    for (size_t p = text.find(word); p != std::string::npos; p = text.find(word, p + 1)) text[p] = 'x';
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World world;
  static int64_t baseline = -1;
  Agent& agent = *world.agent;
  auto& listener = listener::ListenerOf(agent);
  if (listener.Listener().State() != TcpSocket::kListening) {
    if (listener.Listen(0)) std::abort();
  }
  if (baseline < 0) baseline = TcpSocket::OpenSocketCount();

  std::vector<std::unique_ptr<Console>> consoles;
  auto run = [&](int rounds) {
    for (int i = 0; i < rounds; ++i) agent.loop().RunFor(1);
  };
  auto connect = [&] {
    if (consoles.size() >= 6) consoles.erase(consoles.begin());
    consoles.push_back(std::make_unique<Console>(agent));
    auto& s = consoles.back()->socket;
    s.SetRemoteHost("127.0.0.1");
    s.SetRemotePort(listener.Listener().LocalPort());
    s.Connect();
    agent.WaitUntil(2, [&] { return s.State() != TcpSocket::kConnecting; });
    return consoles.back().get();
  };
  size_t i = 0;
  auto next = [&]() -> uint8_t { return i < size ? data[i++] : 0; };
  int steps = 0;
  while (i < size && steps++ < 64) {
    const uint8_t op = next();
    switch (op % 6) {
      case 0:
        connect();
        break;
      case 1:
      case 5: {
        Console* c = consoles.empty() ? connect() : consoles[next() % consoles.size()].get();
        size_t len = next();
        if (op >= 128) len *= 1024;
        std::string text;
        const size_t from_input = std::min(len, size - i);
        text.assign(reinterpret_cast<const char*>(data + i), from_input);
        i += from_input;
        if (text.size() < len) text += Filler().substr(0, len - text.size());  // long transfers of commands
        c->socket.SendData(Tame(text));
        run(2);
        if (op % 6 == 5) c->socket.Close();
        break;
      }
      case 2:
        if (!consoles.empty()) consoles[next() % consoles.size()]->socket.Close();
        run(1);
        break;
      case 3:
        run(1 + next() % 8);
        break;
      case 4:
        listener.ListenConnectionIndex = static_cast<int16_t>(32760 + next() % 8);
        break;
    }
  }
  consoles.clear();
  // Every accepted socket goes once its peer has gone. A console's LOGIN leaves the agent's own
  // login socket as the failed connect left it, until the next exchange closes it: one at most.
  auto expected = [&] { return baseline + (agent.login_socket.State() != TcpSocket::kClosed ? 1 : 0); };
  agent.WaitUntil(10, [&] { return TcpSocket::OpenSocketCount() == expected(); });
  if (TcpSocket::OpenSocketCount() != expected()) {
    std::fprintf(stderr, "%lld sockets still open, %lld expected (connection index %d)\n",
                 static_cast<long long>(TcpSocket::OpenSocketCount()), static_cast<long long>(expected()),
                 listener.ListenConnectionIndex);
    std::abort();
  }
  if (listener.Listener().State() != TcpSocket::kListening) std::abort();
  if (agent.loop().max_run_depth() > 8) std::abort();
  world.ResetFolder();
  return 0;
}
