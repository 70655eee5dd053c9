// Hosts that are no well-behaved agents, for the fleet console's end-to-end runs: each listens on a
// port of its own on 127.0.0.1 and plays one part.
//   silent   accepts and never sends a byte
//   wrong    greets with another service's banner
//   flood    greets "|READY|" and answers any command with the start of a GETINFO reply 1 MB long
//   trickle  greets "|READY|" and answers any command with a GETINFO reply, one byte a second
//   hostile  greets "|READY|" and answers GETINFO and GETVER whole, with markup for a computer name
//            and a component version (what a web console must show as text)
// The ports are written to FILE as "<part> <port>" lines once all of them listen; the program ends after
// the given seconds (or when stopped).
//   fleet-peers --ports-file FILE [--exit-after SECONDS]
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/tcp_socket.h"

using namespace tdacli;

namespace {

struct Part {
  std::string name;
  std::unique_ptr<platform::TcpSocket> listener;
};

struct Connection {
  std::unique_ptr<platform::TcpSocket> socket;
  std::string pending;  // trickle: what is still to send
};

}  // namespace

int main(int argc, char** argv) {
  std::string ports_file;
  double exit_after = 600;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string a = argv[i];
    if (a == "--ports-file") ports_file = argv[i + 1];
    else if (a == "--exit-after") exit_after = std::atof(argv[i + 1]);
  }
  if (ports_file.empty()) {
    std::fprintf(stderr, "usage: fleet-peers --ports-file FILE [--exit-after SECONDS]\n");
    return 2;
  }
  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);
  std::vector<Part> parts;
  std::vector<std::unique_ptr<Connection>> connections;
  const std::string trickled = std::string("|GETINFO|<PCName>SLOW") + '\0' + ";<NETUsername>x" + '\0' +
                               ";<WinName>x;<Extension>1;<TD Server>x;<Notification Method>x;<Listening Ports>x;"
                               "<Pop4Ext>x;<Pop4Win>x;";

  const std::string hostile_info = std::string("|GETINFO|<PCName><img src=x onerror=alert(1)>") + '\0' +
                                   ";<NETUsername><script>alert(2)</script>" + '\0' +
                                   ";<WinName>\"><b>bold</b>;<Extension>4999;<TD Server>10.1.1.5;"
                                   "<Notification Method>ServiceMessage;<Listening Ports>5001,5002,6001,6002;"
                                   "<Pop4Ext>false;<Pop4Win>false;";
  const std::string hostile_report =
      "|GETVER|<Status>Agent Client Components Information:{CRLF}"
      "Agent Login Service: <i>9</i>,[date=2026-01-01],[time=00:00:00],[size=1]{CRLF}"
      "TD Server: 10.1.1.5{CRLF}FTP PassiveUseHostAddr: False{CRLF}";

  for (const char* name : {"silent", "wrong", "flood", "trickle", "hostile"}) {
    Part p{name, std::make_unique<platform::TcpSocket>(loop)};
    p.listener->SetLocalHost("127.0.0.1");
    if (platform::SocketError e = p.listener->Listen()) {
      std::fprintf(stderr, "fleet-peers: cannot listen: %s\n", e.description.c_str());
      return 1;
    }
    platform::TcpSocket* listener = p.listener.get();
    const std::string part = name;
    listener->on_connection_request = [&, listener, part](int64_t id) {
      auto c = std::make_unique<Connection>();
      c->socket = std::make_unique<platform::TcpSocket>(loop);
      platform::TcpSocket* s = c->socket.get();
      if (s->Accept(*listener, id)) return;
      Connection* conn = c.get();
      s->on_close = [s] { s->Close(); };
      s->on_data_arrival = [s, conn, part, &trickled, &hostile_info, &hostile_report](size_t) {
        const std::string command = s->GetData();
        if (part == "flood") s->SendData("|GETINFO|<PCName>" + std::string(1 << 20, 'x'));
        if (part == "trickle") conn->pending = trickled;
        if (part == "hostile") s->SendData(command.find("|GETVER|") != std::string::npos ? hostile_report : hostile_info);
      };
      if (part == "wrong") s->SendData("220 mail.example.com ESMTP ready\r\n");
      if (part == "flood" || part == "trickle" || part == "hostile") s->SendData("|READY|");
      connections.push_back(std::move(c));
    };
    parts.push_back(std::move(p));
  }

  platform::Timer tick(loop);
  tick.SetInterval(1000);
  tick.on_tick = [&] {
    for (auto& c : connections) {
      if (c->pending.empty() || c->socket->State() != platform::TcpSocket::kConnected) continue;
      c->socket->SendData(c->pending.substr(0, 1));
      c->pending.erase(0, 1);
    }
  };
  tick.SetEnabled(true);

  {
    std::ofstream f(ports_file + ".part");
    for (const Part& p : parts) f << p.name << " " << p.listener->LocalPort() << "\n";
  }
  std::rename((ports_file + ".part").c_str(), ports_file.c_str());
  loop.RunFor(static_cast<int64_t>(exit_after * 1000));
  return 0;
}
