#pragma once
// A console for the benchmarks that talk to the real agent: the agent's own socket class on a loop of
// the benchmark's, a free port for the agent to listen on, and the wait for its greeting.
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include "platform/event_loop.h"
#include "platform/tcp_socket.h"

namespace tdacli::bench {

struct Client {
  explicit Client(platform::EventLoop& loop) : loop(loop), socket(loop) {
    socket.on_data_arrival = [this](size_t) { received += socket.GetData(); };
    socket.on_close = [this] { closed = true; };
    socket.on_error = [this](int, const std::string&) { failed = true; };
  }
  // Connects and waits (at most 5 s) for "|READY|"; true when it came.
  bool Connect(uint16_t port) {
    socket.SetRemoteHost("127.0.0.1");
    socket.SetRemotePort(port);
    if (socket.Connect()) return false;
    loop.RunUntil(loop.clock().NowMs() + 5000,
                  [&] { return failed || closed || received.find("|READY|") != std::string::npos; });
    const bool ok = received.find("|READY|") != std::string::npos;
    received.clear();
    return ok;
  }
  platform::EventLoop& loop;
  platform::TcpSocket socket;
  std::string received;
  bool closed = false, failed = false;
};

// A free port the agent's 16-bit port setting can hold.
inline uint16_t FreePort(platform::EventLoop& loop) {
  const uint16_t first = static_cast<uint16_t>(20000 + std::random_device{}() % 12000);
  for (uint16_t p = first; p < 32700; ++p) {
    platform::TcpSocket probe(loop);
    probe.SetLocalPort(p);
    if (!probe.Listen()) return p;
  }
  return 0;
}

// Waits until the agent greets on `port` (it opens the listener with its start-up work, about a
// second after it starts), at most 10 s.
inline bool WaitForListener(platform::EventLoop& loop, uint16_t port) {
  for (int i = 0; i < 100; ++i) {
    Client probe(loop);
    const bool up = probe.Connect(port);
    probe.socket.Close();
    if (up) {
      loop.RunFor(200);
      return true;
    }
    loop.RunFor(100);
  }
  std::fprintf(stderr, "tdacli did not open port %u\n", port);
  return false;
}

}  // namespace tdacli::bench
