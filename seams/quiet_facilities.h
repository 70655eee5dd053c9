#pragma once
// Facilities that do nothing, for programs that run an agent without a host around it: benchmarks and
// fuzz targets. The host identity answers with fixed values.
#include <functional>
#include <string>
#include <vector>

#include "platform/host_identity.h"
#include "platform/internet.h"
#include "platform/service_host.h"

namespace tdacli::platform {

class FixedHostIdentity : public HostIdentity {
 public:
  std::string name = "WKS-0042";
  std::string ComputerNameEx(int) override { return name; }
  std::string ComputerNameRaw() override { return name + '\0'; }
  std::string NetworkUserRaw() override { return std::string("jsmith") + '\0'; }
  std::vector<Adapter> Adapters() override { return {{1, {"192.168.5.20"}}}; }
  OsVersion Version() override { return {10, 0, true}; }
  std::string WindowsDirectory() override { return "C:\\WINDOWS\\"; }
};

class QuietEventLog : public EventLog {
 public:
  void Write(int, const std::string&) override {}
};

// Delivers nothing and reports `answer` (0, success, unless a program chooses, say, 1060 for a
// service that is not installed); `on_send` lets a program answer the sends itself.
class QuietServiceControl : public ServiceControlClient {
 public:
  std::function<void(const std::string&, int)> on_send;
  unsigned long answer = 0;
  unsigned long SendControl(const std::string& service, int code) override {
    if (on_send) on_send(service, code);
    return answer;
  }
};

class QuietDialogs : public Dialogs {
 public:
  void Information(const std::string&, const std::string&) override {}
};

// Answers every GET through `on_get`, or with nothing received.
class QuietHttpClient : public HttpClient {
 public:
  std::function<HttpResponse(const std::string& url)> on_get;
  HttpResponse Get(const std::string& url) override {
    if (on_get) return on_get(url);
    HttpResponse r;
    r.error = "no web service here";
    return r;
  }
};

class LanConnection : public InternetConnection {
 public:
  bool Connected(std::string& kind) override {
    kind = "LAN";
    return true;
  }
};

class QuietServiceHost : public ServiceHost {
 public:
  bool StartedByServiceManager() const override { return true; }
  bool ServiceManagerWaitsForStart() const override { return false; }
  bool IsInstalled() override { return true; }
  bool Install(const std::string&, const std::string&) override { return true; }
  bool Uninstall() override { return true; }
  void Attach(ServiceEvents) override {}
  void ReportRunning() override {}
  void ReportStopped() override {}
  void ReportStartFailed(unsigned long) override {}
};

}  // namespace tdacli::platform
