// tdacli-abuse: a hostile console for the end-to-end abuse runs (Linux). Each mode prints one result
// line and exits 0 when it saw what it expected.
//   burst PORT N          N connects at once; each must be greeted with "|READY|"
//   leave PORT N          N rounds: A connects, B connects, A sends a command and leaves without a
//                         word; the agent's close of B (a close event closes the newest) is awaited
//   hold PORT N SECONDS   N connects, kept open SECONDS, then closed; prints how many were greeted
//   noread PORT BYTES     greeted, then BYTES of "|GETINFO|" sent without ever reading until the agent
//                         closes the connection
//   send PORT TEXT        greeted, sends TEXT (\r \n \0 \\ escapes), prints the reply with the same escapes
//   occupy PORT SECONDS   listens on PORT for SECONDS (a busy port for SETLISTEN)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

int Connect(int port, bool blocking) {
  int fd = socket(AF_INET, SOCK_STREAM | (blocking ? 0 : SOCK_NONBLOCK), 0);
  if (fd < 0) return -1;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 && errno != EINPROGRESS) {
    close(fd);
    return -1;
  }
  return fd;
}

// Reads until `want` bytes arrived, the peer closed, or the time is up.
std::string ReadFor(int fd, size_t want, double seconds) {
  std::string got;
  const auto start = Clock::now();
  while (got.size() < want && Since(start) < seconds) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) break;
    got.append(buf, static_cast<size_t>(n));
  }
  return got;
}

bool WaitClosed(int fd, double seconds) {
  const auto start = Clock::now();
  while (Since(start) < seconds) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n == 0 || (n < 0 && errno != EAGAIN)) return true;
  }
  return false;
}

std::string Unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 == s.size()) {
      out += s[i];
      continue;
    }
    char c = s[++i];
    out += c == 'r' ? '\r' : c == 'n' ? '\n' : c == '0' ? '\0' : c;
  }
  return out;
}

std::string Escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '\r') out += "\\r";
    else if (c == '\n') out += "\\n";
    else if (c == '\0') out += "\\0";
    else if (c == '\\') out += "\\\\";
    else out += c;
  }
  return out;
}

void RaiseDescriptorLimit() {
  rlimit r{};
  if (getrlimit(RLIMIT_NOFILE, &r) == 0) {
    r.rlim_cur = r.rlim_max;
    setrlimit(RLIMIT_NOFILE, &r);
  }
}

int Burst(int port, int n) {
  RaiseDescriptorLimit();
  const auto start = Clock::now();
  std::vector<int> fds;
  std::vector<std::string> got(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) fds.push_back(Connect(port, false));
  int greeted = 0;
  std::vector<bool> done(static_cast<size_t>(n), false);
  while (greeted < n && Since(start) < 120) {
    std::vector<pollfd> p;
    std::vector<int> idx;
    for (int i = 0; i < n; ++i)
      if (!done[static_cast<size_t>(i)] && fds[static_cast<size_t>(i)] >= 0) {
        p.push_back({fds[static_cast<size_t>(i)], POLLIN, 0});
        idx.push_back(i);
      }
    if (p.empty()) break;
    if (poll(p.data(), p.size(), 200) <= 0) continue;
    for (size_t k = 0; k < p.size(); ++k) {
      if (!p[k].revents) continue;
      const size_t i = static_cast<size_t>(idx[k]);
      char buf[64];
      ssize_t r = recv(fds[i], buf, sizeof buf, 0);
      if (r > 0) got[i].append(buf, static_cast<size_t>(r));
      if (r <= 0 || got[i].size() >= 7) {
        done[i] = true;
        if (got[i] == "|READY|") ++greeted;
      }
    }
  }
  const double secs = Since(start);
  for (int fd : fds)
    if (fd >= 0) close(fd);
  std::printf("burst: %d of %d greeted in %.2f s (%.0f connections/s)\n", greeted, n, secs, greeted / secs);
  return greeted == n ? 0 : 1;
}

int Leave(int port, int n) {
  const auto start = Clock::now();
  int ok = 0;
  for (int i = 0; i < n; ++i) {
    int a = Connect(port, true), b = -1;
    if (a < 0 || ReadFor(a, 7, 5) != "|READY|") break;
    b = Connect(port, true);
    if (b < 0 || ReadFor(b, 7, 5) != "|READY|") break;
    const char cmd[] = "|SETEXT|99;junk";
    if (send(a, cmd, sizeof cmd - 1, MSG_NOSIGNAL) < 0) break;
    close(a);
    if (!WaitClosed(b, 5)) break;
    close(b);
    ++ok;
  }
  std::printf("leave: %d of %d rounds in %.2f s\n", ok, n, Since(start));
  return ok == n ? 0 : 1;
}

int Hold(int port, int n, double seconds) {
  RaiseDescriptorLimit();
  std::vector<int> fds;
  for (int i = 0; i < n; ++i) fds.push_back(Connect(port, false));
  int made = 0;
  for (int fd : fds) made += fd >= 0;
  std::printf("hold: %d of %d connections made\n", made, n);
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  for (int fd : fds)
    if (fd >= 0) close(fd);
  return 0;
}

int NoRead(int port, long long bytes) {
  int fd = Connect(port, true);
  if (fd < 0 || ReadFor(fd, 7, 5) != "|READY|") {
    std::printf("noread: no greeting\n");
    return 1;
  }
  std::string chunk;
  while (chunk.size() < 900000) chunk += "|GETINFO|";
  long long sent = 0;
  bool closed = false;
  const auto start = Clock::now();
  while (sent < bytes && Since(start) < 120) {
    pollfd p{fd, POLLOUT, 0};
    if (poll(&p, 1, 200) <= 0) continue;
    if (p.revents & (POLLERR | POLLHUP)) {
      closed = true;
      break;
    }
    ssize_t n = send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN) {
      closed = true;
      break;
    }
    if (n > 0) sent += n;
  }
  std::printf("noread: sent %lld bytes, %s\n", sent, closed ? "closed by the agent" : "still open");
  close(fd);
  return closed ? 0 : 1;
}

int Send(int port, const std::string& text) {
  int fd = Connect(port, true);
  if (fd < 0 || ReadFor(fd, 7, 5) != "|READY|") {
    std::printf("send: no greeting\n");
    return 1;
  }
  const std::string data = Unescape(text);
  send(fd, data.data(), data.size(), MSG_NOSIGNAL);
  std::string reply = ReadFor(fd, 1, 30);
  reply += ReadFor(fd, 1 << 20, 0.3);
  std::printf("%s\n", Escape(reply).c_str());
  close(fd);
  return 0;
}

int Occupy(int port, double seconds) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 4) != 0) {
    std::printf("occupy: port %d not free\n", port);
    return 1;
  }
  std::printf("occupy: listening on %d\n", port);
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  close(fd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  const int port = argc > 2 ? std::atoi(argv[2]) : 0;
  if (mode == "burst" && argc == 4) return Burst(port, std::atoi(argv[3]));
  if (mode == "leave" && argc == 4) return Leave(port, std::atoi(argv[3]));
  if (mode == "hold" && argc == 5) return Hold(port, std::atoi(argv[3]), std::atof(argv[4]));
  if (mode == "noread" && argc == 4) return NoRead(port, std::atoll(argv[3]));
  if (mode == "send" && argc == 4) return Send(port, argv[3]);
  if (mode == "occupy" && argc == 4) return Occupy(port, std::atof(argv[3]));
  std::fprintf(stderr, "usage: tdacli-abuse burst|leave|hold|noread|send|occupy PORT ...\n");
  return 2;
}
