#include <algorithm>
#include <cmath>

#include "shared/exchange.h"
#include "platform/tcp_socket.h"

namespace tdacli::explorer {

Exchange RunExchange(platform::EventLoop& loop, const std::string& host, uint16_t port, const std::string& command,
                     double timeout_seconds, int settle_ms) {
  return RunExchange(loop, host, port, std::vector<std::string>{command}, timeout_seconds, 0, settle_ms);
}

Exchange RunExchange(platform::EventLoop& loop, const std::string& host, uint16_t port,
                     const std::vector<std::string>& pieces, double timeout_seconds, int gap_ms, int settle_ms) {
  Exchange result;
  platform::Clock& clock = loop.clock();
  const int64_t timeout_ms = static_cast<int64_t>(std::llround(timeout_seconds * 1000));

  platform::TcpSocket socket(loop);
  std::string received;
  bool connected = false, closed = false, failed = false, answered = false, too_long = false;
  int64_t last_data_ms = 0;
  // Takes what arrived, up to kMaxExchangeBytes in all; what passes it ends the exchange.
  auto take = [&](const std::string& data) {
    if (answered || too_long) return;
    if (received.size() + data.size() > kMaxExchangeBytes) {
      too_long = true;
      return;
    }
    received += data;
  };
  socket.on_connect = [&] { connected = true; };
  // Once the reply is taken, whatever else comes is read and dropped.
  socket.on_data_arrival = [&](size_t) {
    take(socket.GetData());
    last_data_ms = clock.NowMs();
  };
  socket.on_close = [&] {
    take(socket.GetData());
    closed = true;
  };
  auto cut_off = [&] {
    result.status = Exchange::kTooLong;
    result.error = "more than " + std::to_string(kMaxExchangeBytes) + " bytes";
    socket.Close();
    return result;
  };
  socket.on_error = [&](int number, const std::string& description) {
    failed = true;
    result.error = std::to_string(number) + ", " + description;
  };

  socket.SetRemoteHost(host);
  socket.SetRemotePort(port);
  if (platform::SocketError e = socket.Connect()) {
    result.status = Exchange::kConnectFailed;
    result.error = std::to_string(e.number) + ", " + e.description;
    return result;
  }

  // The greeting: the connection and "|READY|" within the time-out. Each arrival is searched from
  // where the last search could not have missed it, never from the start again.
  constexpr std::string_view kReady = "|READY|";
  size_t ready_at = std::string::npos, searched = 0;
  bool greeted = loop.RunUntil(clock.NowMs() + timeout_ms, [&] {
    if (ready_at == std::string::npos && received.size() > searched) {
      ready_at = received.find(kReady, searched > kReady.size() ? searched - kReady.size() : 0);
      searched = received.size();
    }
    return failed || closed || too_long || ready_at != std::string::npos;
  });
  if (failed && !connected) {
    result.status = Exchange::kConnectFailed;
    return result;
  }
  if (ready_at == std::string::npos && too_long) return cut_off();
  if (!greeted || ready_at == std::string::npos) {
    result.status = Exchange::kNoGreeting;
    socket.Close();
    return result;
  }
  received.erase(0, ready_at + kReady.size());

  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i != 0 && gap_ms > 0) {
      // The agent reads each piece before the next one comes, as pieces of a job chopped by the network.
      loop.RunUntil(clock.NowMs() + gap_ms, [&] { return closed || failed; });
    }
    if (closed || failed || socket.SendData(pieces[i])) {
      result.status = Exchange::kNoReply;
      socket.Close();
      return result;
    }
  }

  // The reply has no terminator: it is complete when no more data comes for a moment.
  const int64_t deadline = clock.NowMs() + timeout_ms;
  if (received.empty()) {
    loop.RunUntil(deadline, [&] { return !received.empty() || closed || failed || too_long; });
  } else {
    last_data_ms = clock.NowMs();
  }
  if (too_long) return cut_off();
  if (received.empty()) {
    result.status = Exchange::kNoReply;
    socket.Close();
    return result;
  }
  for (;;) {
    const int64_t quiet_until = last_data_ms + settle_ms;
    const size_t before = received.size();
    loop.RunUntil(std::min(quiet_until, deadline),
                  [&] { return received.size() != before || closed || failed || too_long; });
    if (too_long) return cut_off();
    if (closed || failed || received.size() == before || clock.NowMs() >= deadline) break;
  }
  result.status = Exchange::kReplied;
  result.reply = std::move(received);
  answered = true;
  if (!closed && !failed) {
    socket.ShutdownSend();
    loop.RunUntil(clock.NowMs() + kAgentCloseWaitMs, [&] { return closed || failed; });
  }
  socket.Close();
  return result;
}

}  // namespace tdacli::explorer
