#pragma once
// Test doubles for the platform facilities and a ready-made agent in its own temporary application
// folder, on a simulated clock.
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "common/paths.h"
#include "platform/clock.h"
#include "platform/host_identity.h"
#include "platform/internet.h"
#include "platform/service_host.h"
#include "platform/tcp_socket.h"
#include "service/wiring.h"

namespace tdacli::testing {

class FakeHost : public platform::HostIdentity {
 public:
  std::array<std::string, 8> names = {"WKS-0042",          "wks-0042", "corp.example",
                                      "wks-0042.corp.example", "WKS-0042", "wks-0042",
                                      "corp.example",      "wks-0042.corp.example"};
  std::string computer_raw = std::string("WKS-0042") + '\0';
  std::string user_raw = std::string("jsmith") + '\0';
  std::vector<std::vector<std::string>> adapters = {{"192.168.5.20"}};
  // Interface index of each adapter above, in the same order; without one an adapter gets its
  // position (1, 2, ...).
  std::vector<uint32_t> adapter_indexes;
  platform::OsVersion version{10, 0, true};
  std::string windows_dir = "C:\\WINDOWS";
  std::string ComputerNameEx(int f) override { return names.at(static_cast<size_t>(f)); }
  std::string ComputerNameRaw() override { return computer_raw; }
  std::string NetworkUserRaw() override { return user_raw; }
  std::vector<platform::Adapter> Adapters() override {
    std::vector<platform::Adapter> out;
    for (size_t i = 0; i < adapters.size(); ++i)
      out.push_back({i < adapter_indexes.size() ? adapter_indexes[i] : static_cast<uint32_t>(i + 1), adapters[i]});
    return out;
  }
  platform::OsVersion Version() override { return version; }
  std::string WindowsDirectory() override { return windows_dir; }
};

class FakeEventLog : public platform::EventLog {
 public:
  std::vector<std::pair<int, std::string>> entries;
  void Write(int type, const std::string& message) override { entries.emplace_back(type, message); }
};

class FakeServiceControl : public platform::ServiceControlClient {
 public:
  std::vector<std::pair<std::string, int>> sent;
  std::map<std::string, unsigned long> results;  // service -> error number (default 0)
  std::function<void(const std::string&, int)> on_send;
  unsigned long SendControl(const std::string& service, int code) override {
    sent.emplace_back(service, code);
    if (on_send) on_send(service, code);
    auto it = results.find(service);
    return it == results.end() ? 0 : it->second;
  }
};

class FakeDialogs : public platform::Dialogs {
 public:
  std::vector<std::pair<std::string, std::string>> shown;
  void Information(const std::string& text, const std::string& title) override { shown.emplace_back(text, title); }
};

class FakeServiceHost : public platform::ServiceHost {
 public:
  bool started_by_scm = true;
  bool scm_waits = false;  // a Windows service manager (true) or the POSIX foreground run (false)
  bool installed = false;
  int install_calls = 0, uninstall_calls = 0, running_reports = 0, stopped_reports = 0;
  std::vector<unsigned long> start_failures;
  std::string installed_account = "<none>", installed_password = "<none>";
  platform::ServiceEvents events;
  bool StartedByServiceManager() const override { return started_by_scm; }
  bool ServiceManagerWaitsForStart() const override { return scm_waits; }
  bool IsInstalled() override { return installed; }
  bool Install(const std::string& account, const std::string& password) override {
    ++install_calls;
    installed = true;
    installed_account = account;
    installed_password = password;
    return true;
  }
  bool Uninstall() override {
    ++uninstall_calls;
    installed = false;
    return true;
  }
  void Attach(platform::ServiceEvents e) override { events = std::move(e); }
  void ReportRunning() override { ++running_reports; }
  void ReportStopped() override { ++stopped_reports; }
  void ReportStartFailed(unsigned long code) override { start_failures.push_back(code); }
};

// Records every URL fetched; `answer` decides the response (default: nothing received, refused).
class FakeHttpClient : public platform::HttpClient {
 public:
  std::vector<std::string> urls;
  std::function<platform::HttpResponse(const std::string& url)> answer;
  platform::HttpResponse Get(const std::string& url) override {
    urls.push_back(url);
    if (answer) return answer(url);
    platform::HttpResponse r;
    r.error = "Connection refused";
    return r;
  }
  // Every GET answers `status` with `body`.
  void Always(std::string body, int status = 200) {
    answer = [body, status](const std::string&) {
      platform::HttpResponse r;
      r.received = true;
      r.status = status;
      r.body = body;
      return r;
    };
  }
};

// Not connected for the first `offline_checks` checks, then connected through `kind`.
class FakeInternet : public platform::InternetConnection {
 public:
  int offline_checks = 0;
  int checks = 0;
  std::string kind = "LAN";
  bool Connected(std::string& k) override {
    if (checks++ < offline_checks) return false;
    k = kind;
    return true;
  }
};

// A fresh temporary folder, removed at the end of the test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }  // without a trailing separator
  std::string File(const std::string& name) const { return path_ + kSepStr + name; }

 private:
  std::string path_;
};

// Waits in real time until done() holds, at most `limit`, for what a peer on another thread or in
// another process does at its own pace; returns done().
bool Eventually(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::milliseconds(30'000));

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
bool Exists(const std::string& path);
// The lines of a file, split at CR LF (a missing final CR LF leaves the last piece as a line).
std::vector<std::string> Lines(const std::string& path);
// The message parts of the trace lines ("<category> in TDACLI: <message>"), without stamps.
std::vector<std::string> TraceMessages(const std::string& path);

struct TestAgent {
  explicit TestAgent(platform::LocalTime start = {2026, 11, 14, 23, 15, 2});
  ~TestAgent();
  TempDir dir;
  platform::SimulatedClock clock;
  FakeHost host;
  FakeEventLog event_log;
  FakeServiceControl service_control;
  FakeDialogs dialogs;
  FakeServiceHost service_host;
  FakeHttpClient http;
  FakeInternet internet;
  std::unique_ptr<Agent> agent;
  Agent& operator*() { return *agent; }
  Agent* operator->() { return agent.get(); }
  // Trace of this agent for the local IP "192.168.5.20".
  std::string ProgramTrace() const { return dir.File(ip_part + "-TDACLI-TraceFile.TXT"); }
  std::string HostTrace() const { return dir.File(ip_part + "-TraceFile.TXT"); }
  std::string ErrorLog() const { return dir.File(ip_part + "-Error.LOG"); }
  std::vector<std::string> Messages() const { return TraceMessages(ProgramTrace()); }
  std::string ip_part = "192-168-5-20";
};

// A port number below 32768 (the listener's port is a 16-bit signed value) that is free now, held by
// the returned socket while it lives.
inline std::unique_ptr<platform::TcpSocket> HoldLowPort(platform::EventLoop& loop, uint16_t& port) {
  std::random_device seed;
  for (uint16_t p = static_cast<uint16_t>(21000 + seed() % 11000);; ++p) {
    if (p >= 32000) p = 21000;
    auto socket = std::make_unique<platform::TcpSocket>(loop);
    socket->SetLocalPort(p);
    if (!socket->Listen()) {
      port = p;
      return socket;
    }
  }
}

// A port number below 32768 that is free now (nothing holds it afterwards).
inline uint16_t FreeListenPort(platform::EventLoop& loop) {
  uint16_t port = 0;
  HoldLowPort(loop, port);
  return port;
}

}  // namespace tdacli::testing
