// Login, logoff and status latency of the real agent code against the login server simulator on the
// loopback, on the real clock: 1,000 of each, median and 99th percentile. The simulator runs on its own
// thread (as a separate server would), and again on the agent's own loop for comparison. The agent's
// folder lies in the system's temporary folder (TMPDIR chooses another): on a real disk, every flush
// of the settings file costs what the disk takes for it. Each login also says how many flushes it
// asked for: as it runs here (the server hands out the same settings, so the file is not written
// again) and when every login brings a changed setting.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "bench_args.h"
#include "login/drivers.h"
#include "login_server.h"
#ifdef TDACLI_SIM_WEB
#include "platform/internet.h"
#include "seams/test_ca.h"
#include "web_server.h"
#endif
#include "platform/clock.h"
#include "platform/file_system.h"
#include "bench_agent.h"
#include "service/wiring.h"
#include "service/login_socket.h"

namespace {

using namespace tdacli;
using bench::BenchAgent;

constexpr int kRuns = 1000;
constexpr int kWarmUp = 20;

loginsim::UserTable Users() {
  loginsim::UserRecord u;
  u.name = "jsmith";
  u.server_temp = "\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E7D6C";
  u.local_temp = "C:\\%WINDIR%\\Temp";
  u.live_id = "48213:10.1.2.3:5020:T";
  u.kek_info = "KEK-0001";
  u.valid_ip_mask = "192.168.5.";
  u.trace = "False";
  loginsim::UserTable users;
  users.Add(u);
  return users;
}

// The system's files, counting the flushes asked of the disk: a file's bytes before its rename, and
// the folder after a rename.
class CountingFileSystem : public platform::FileSystem {
 public:
  long long file_flushes = 0, folder_flushes = 0;
  platform::EntryKind Kind(const std::string& p) override { return real_.Kind(p); }
  platform::FileResult Write(const std::string& p, std::string_view b, bool flush) override {
    if (flush) ++file_flushes;
    return real_.Write(p, b, flush);
  }
  platform::FileResult Append(const std::string& p, std::string_view b, long long& size) override {
    return real_.Append(p, b, size);
  }
  platform::FileResult Rename(const std::string& s, const std::string& t, bool replace, bool durable) override {
    if (durable) ++folder_flushes;
    return real_.Rename(s, t, replace, durable);
  }
  platform::FileResult Remove(const std::string& p) override { return real_.Remove(p); }
  platform::FileResult Read(const std::string& p, size_t limit, std::string& b) override {
    return real_.Read(p, limit, b);
  }

 private:
  platform::FileSystem& real_ = platform::SystemFileSystem();
};

struct Figures {
  double median_ms = 0, p99_ms = 0, max_ms = 0;
  int failed = 0;
};

Figures Measure(const std::function<bool()>& once) {
  for (int i = 0; i < kWarmUp; ++i) once();
  std::vector<double> ms;
  ms.reserve(kRuns);
  Figures f;
  for (int i = 0; i < kRuns; ++i) {
    const auto start = std::chrono::steady_clock::now();
    if (!once()) ++f.failed;
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(ms.begin(), ms.end());
  f.median_ms = (ms[kRuns / 2 - 1] + ms[kRuns / 2]) / 2;
  f.p99_ms = ms[static_cast<size_t>(kRuns * 99 / 100) - 1];
  f.max_ms = ms.back();
  return f;
}

void Print(const char* what, const Figures& f) {
  std::printf("  %-14s median %7.3f ms   p99 %7.3f ms   max %8.3f ms   failed %d/%d\n", what, f.median_ms, f.p99_ms,
              f.max_ms, f.failed, kRuns);
}

// Flushes per login of one Measure() (its warm-up runs included).
void PrintFlushes(const char* what, CountingFileSystem& files) {
  const double runs = kRuns + kWarmUp;
  std::printf("  %-14s flushes per login %.2f (file %.2f, folder %.2f)\n", what,
              static_cast<double>(files.file_flushes + files.folder_flushes) / runs, files.file_flushes / runs,
              files.folder_flushes / runs);
  files.file_flushes = files.folder_flushes = 0;
}

void RunAll(Agent& a) {
  CountingFileSystem files;
  a.file_system = &files;
  auto login = [&] {
    LoginUser(a);
    return a.login().LoginSucceeded && a.login().LastLoginResult.rfind("The Tyndrel", 0) == 0;
  };
  Print("login", Measure(login));
  PrintFlushes("login", files);
  // A setting the login's save writes from memory, changed before every login: each save writes and
  // flushes the settings file.
  bool pop = false;
  Print("login, changed", Measure([&] {
          a.settings.PopEx = (pop = !pop) ? "true" : "false";
          return login();
        }));
  PrintFlushes("login, changed", files);
  Print("logoff", Measure([&] {
          LogOffUser(a);
          return a.login().LogoffSucceeded;
        }));
  a.temp_access_status = 0;
  Print("status report", Measure([&] {
          a.WriteLogin().StatusSucceeded = false;
          LoginStatus(a);
          return a.login().StatusSucceeded;
        }));
  a.file_system = &platform::SystemFileSystem();
}

#ifdef TDACLI_SIM_WEB
// Logins through the web service (the simulator's, on its own threads) with the platform's HTTP client:
// a new connection for every request, as the transfer control makes; over HTTPS with the TLS set-up
// each time.
int RunWeb(const std::filesystem::path& folder, bool https) {
  namespace fs = std::filesystem;
  const fs::path dir = folder / (https ? "https" : "http");
  fs::create_directories(dir / "pki");
  loginsim::WebOptions o;
  std::unique_ptr<platform::HttpClient> client = platform::MakeHttpClient();
  if (https) {
    std::string error;
    if (!loginsim::MakeTestPki((dir / "pki").string(), error)) {
      std::printf("cannot make the test certificates: %s\n", error.c_str());
      return 1;
    }
    o.https = true;
    o.cert_file = (dir / "pki" / "server.pem").string();
    o.key_file = (dir / "pki" / "server.key").string();
    client = platform::testing::MakeHttpClientTrustingOnly((dir / "pki" / "ca.pem").string());
  }
  loginsim::WebLoginServer server(Users(), o);
  std::string error;
  if (!server.Start(error)) {
    std::printf("cannot start the web service: %s\n", error.c_str());
    return 1;
  }
  BenchAgent b((dir).string());
  b.http.on_get = [&client](const std::string& url) { return client->Get(url); };
  b.agent->settings.Server = "127.0.0.1:" + std::string(https ? "https:" : "") + std::to_string(server.port());
  std::printf("web service over %s at %s (Server=%s)\n", https ? "HTTPS" : "HTTP", server.BaseUrl().c_str(),
              b.agent->settings.Server.c_str());
  Print(https ? "web login TLS" : "web login", Measure([&] {
          LoginUser(*b.agent);
          return b.agent->login().LoginSucceeded;
        }));
  Print(https ? "web status TLS" : "web status", Measure([&] {
          LoginStatus(*b.agent);
          return b.agent->login().StatusSucceeded;
        }));
  server.Stop();
  return 0;
}
#endif

}  // namespace

int main(int argc, char** argv) {
  const bench::Usage usage(argc, argv, "login_bench", "",
                           "Login, logoff and status latency of the real agent code against the login server\n"
                           "simulator on the loopback, 1,000 of each: median and 99th percentile.\n",
                           0);
  namespace fs = std::filesystem;
  std::random_device seed;
  const fs::path folder = fs::temp_directory_path() / ("tdacli-login-bench-" + std::to_string(seed()));
  fs::create_directories(folder);

  std::printf("login_bench: %d logins, logoffs and status reports each (after %d warm-up runs), real clock\n",
              kRuns, kWarmUp);
  std::printf("folder: %s\n", folder.string().c_str());
  {
    fs::create_directories(folder / "thread");
    BenchAgent b((folder / "thread").string());
    WireLoginSocket(*b.agent);
    loginsim::LoginServerThread server(Users(), {});
    if (platform::SocketError e = server.StartOnFreeLoopback()) {
      std::printf("cannot start the simulator: %d %s\n", e.number, e.description.c_str());
      return 1;
    }
    b.agent->settings.Server = server.server().address();
    std::printf("simulator on its own thread at %s:5003\n", server.server().address().c_str());
    RunAll(*b.agent);
    server.Stop();
  }
  {
    fs::create_directories(folder / "loop");
    BenchAgent b((folder / "loop").string());
    WireLoginSocket(*b.agent);
    loginsim::LoginServer server(b.agent->loop(), Users(), {});
    if (platform::SocketError e = server.StartOnFreeLoopback()) {
      std::printf("cannot start the simulator: %d %s\n", e.number, e.description.c_str());
      return 1;
    }
    b.agent->settings.Server = server.address();
    std::printf("simulator on the agent's own loop at %s:5003\n", server.address().c_str());
    RunAll(*b.agent);
  }
#ifdef TDACLI_SIM_WEB
  if (RunWeb(folder, false) != 0 || RunWeb(folder, true) != 0) return 1;
#endif
  std::error_code ec;
  fs::remove_all(folder, ec);
  return 0;
}
