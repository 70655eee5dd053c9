// A running tdacli under a connection burst and on one busy connection, with the bounds in force:
// connections accepted (greeted with "|READY|") per second for N simultaneous connects, the agent's
// peak resident memory (VmHWM) and descriptors afterwards, then "|GETINFO|" round trips per second on
// one connection (the floor is 5,000/s).
//   burst_bench [CONNECTIONS] [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/host_identity.h"

#ifndef _WIN32
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent_process.h"
#include "bench_args.h"
#endif

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

#ifndef _WIN32
namespace {

double Since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

int Connect(uint16_t port, bool blocking) {
  int fd = socket(AF_INET, SOCK_STREAM | (blocking ? 0 : SOCK_NONBLOCK), 0);
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  return fd;
}

bool PortFree(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

// Reads until `marker` ends the received text or the time is up.
bool ReadUntil(int fd, std::string& got, const std::string& marker, double seconds) {
  const auto start = Clock::now();
  char buf[8192];
  while (Since(start) < seconds) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    got.append(buf, static_cast<size_t>(n));
    if (got.size() >= marker.size() && got.compare(got.size() - marker.size(), marker.size(), marker) == 0) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const tdacli::bench::Usage usage(
      argc, argv, "burst_bench", "[CONNECTIONS [SECONDS]]",
      "A running tdacli under a burst of CONNECTIONS simultaneous connects (default 5000): connections\n"
      "greeted per second, the agent's peak memory and descriptors afterwards, then \"|GETINFO|\" round\n"
      "trips per second on one connection for SECONDS (default 3).\n",
      2);
  const int connections = usage.Count(1, 5000);
  const double seconds = usage.Seconds(2, 3.0);
  rlimit r{};
  getrlimit(RLIMIT_NOFILE, &r);
  r.rlim_cur = r.rlim_max;
  setrlimit(RLIMIT_NOFILE, &r);

  uint16_t port = static_cast<uint16_t>(20000 + std::random_device{}() % 12000);
  while (!PortFree(port)) ++port;
  tdacli::bench::AgentProcess agent("tdacli-burst-bench", port);
  if (!agent.ready()) return 1;
  agent.Start();
  const pid_t pid = agent.pid();
  // Wait until the agent listens.
  {
    const auto start = Clock::now();
    bool up = false;
    while (!up && Since(start) < 30) {
      int fd = Connect(port, true);
      std::string got;
      up = ReadUntil(fd, got, "|READY|", 1);
      close(fd);
      if (!up) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!up) {
      std::fprintf(stderr, "the agent does not listen on %u\n", port);
      return 1;
    }
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const long rss0 = tdacli::bench::StatusKb(pid, "VmRSS:");
  const long fds0 = tdacli::bench::CountFds(pid);

  // The burst.
  const auto start = Clock::now();
  std::vector<int> fds;
  std::vector<std::string> got(static_cast<size_t>(connections));
  for (int i = 0; i < connections; ++i) fds.push_back(Connect(port, false));
  int greeted = 0;
  std::vector<bool> done(static_cast<size_t>(connections), false);
  while (greeted < connections && Since(start) < 120) {
    std::vector<pollfd> p;
    std::vector<size_t> idx;
    for (size_t i = 0; i < fds.size(); ++i)
      if (!done[i]) {
        p.push_back({fds[i], POLLIN, 0});
        idx.push_back(i);
      }
    if (poll(p.data(), p.size(), 200) <= 0) continue;
    for (size_t k = 0; k < p.size(); ++k) {
      if (!p[k].revents) continue;
      char buf[16];
      ssize_t n = recv(fds[idx[k]], buf, sizeof buf, 0);
      if (n > 0) got[idx[k]].append(buf, static_cast<size_t>(n));
      if (n <= 0 || got[idx[k]].size() >= 7) {
        done[idx[k]] = true;
        greeted += got[idx[k]] == "|READY|";
      }
    }
  }
  const double burst_s = Since(start);
  const long hwm = tdacli::bench::StatusKb(pid, "VmHWM:");
  const long fds_open = tdacli::bench::CountFds(pid);
  for (int fd : fds) close(fd);
  const auto settle = Clock::now();
  while (tdacli::bench::CountFds(pid) != fds0 && Since(settle) < 30) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::printf("burst: %d of %d connections greeted in %.2f s: %.0f connections/s\n", greeted, connections, burst_s,
              greeted / burst_s);
  std::printf("burst: agent VmRSS %ld kB before, VmHWM %ld kB peak; descriptors %ld before, %ld with all open, "
              "%ld after all closed\n",
              rss0, hwm, fds0, fds_open, tdacli::bench::CountFds(pid));

  // GETINFO round trips on one connection.
  int fd = Connect(port, true);
  std::string reply;
  if (!ReadUntil(fd, reply, "|READY|", 5)) return 1;
  const std::string request = "|GETINFO|";
  long trips = 0;
  const auto t0 = Clock::now();
  while (Since(t0) < seconds) {
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    reply.clear();
    if (!ReadUntil(fd, reply, "<Pop4Win>false;", 5)) return 1;
    ++trips;
  }
  const double rate = trips / Since(t0);
  close(fd);
  std::printf("getinfo: %ld round trips in %.1f s on one connection: %.0f/s (floor 5000/s: %s)\n", trips, seconds,
              rate, rate >= 5000 ? "met" : "MISSED");
  return greeted == connections && rate >= 5000 ? 0 : 1;
}
#else
int main() {
  std::printf("burst_bench runs on Linux only\n");
  return 0;
}
#endif
