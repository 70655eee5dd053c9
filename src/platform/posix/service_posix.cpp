// There is no service manager here: a hand-started agent runs as the service in the foreground.
// SIGTERM and SIGINT are the Stop request; user-defined control codes arrive as decimal text on a
// datagram socket in the application folder named after the service.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "platform/platform.h"

namespace tdacli::platform {

std::string ControlEndpointPath(const std::string& app_folder, const std::string& service) {
  std::string p = app_folder;
  if (!p.empty() && p.back() != '/') p += '/';
  return p + service + ".svc";
}

namespace {

class PosixServiceHost : public ServiceHost {
 public:
  PosixServiceHost(ServiceIdentity id, std::string app_folder)
      : id_(std::move(id)), app_folder_(std::move(app_folder)) {}
  bool StartedByServiceManager() const override { return true; }
  bool ServiceManagerWaitsForStart() const override { return false; }
  bool IsInstalled() override { return true; }
  bool Install(const std::string&, const std::string&) override { return false; }
  bool Uninstall() override { return false; }

  void Attach(ServiceEvents events) override {
    events_ = std::move(events);
    std::thread([this] {
      sigset_t set;
      sigemptyset(&set);
      sigaddset(&set, SIGTERM);
      sigaddset(&set, SIGINT);
      int sig = 0;
      while (sigwait(&set, &sig) == 0) {
        if (events_.on_stop) events_.on_stop();
      }
    }).detach();
    std::string path = ControlEndpointPath(app_folder_, id_.name);
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (fd >= 0 && path.size() < sizeof a.sun_path) {
      std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
      unlink(path.c_str());
      if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
        endpoint_ = path;
        std::thread([this, fd] {
          char buf[64];
          for (;;) {
            ssize_t n = recv(fd, buf, sizeof buf - 1, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) break;
            buf[n] = '\0';
            char* end = nullptr;
            long code = std::strtol(buf, &end, 10);
            if (end != buf && events_.on_control) events_.on_control(static_cast<int>(code));
          }
        }).detach();
      }
    }
    if (events_.on_start) events_.on_start();
  }
  void ReportRunning() override {}
  void ReportStopped() override {
    if (!endpoint_.empty()) unlink(endpoint_.c_str());
  }
  void ReportStartFailed(unsigned long) override { ReportStopped(); }

 private:
  ServiceIdentity id_;
  std::string app_folder_;
  ServiceEvents events_;
  std::string endpoint_;
};

class SyslogEventLog : public EventLog {
 public:
  SyslogEventLog() { openlog("TDACLI", LOG_PID, LOG_DAEMON); }
  void Write(int type, const std::string& message) override {
    int prio = type == 1 ? LOG_ERR : type == 2 ? LOG_WARNING : LOG_INFO;
    syslog(prio, "%s", message.c_str());
  }
};

class DatagramServiceControl : public ServiceControlClient {
 public:
  explicit DatagramServiceControl(std::string app_folder) : app_folder_(std::move(app_folder)) {}
  unsigned long SendControl(const std::string& service, int code) override {
    std::string path = ControlEndpointPath(app_folder_, service);
    if (access(path.c_str(), F_OK) != 0) return 1060;  // ERROR_SERVICE_DOES_NOT_EXIST
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 1061;
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    std::string text = std::to_string(code);
    ssize_t n = sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
    int e = errno;
    close(fd);
    if (n >= 0) return 0;
    if (e == ECONNREFUSED || e == ENOENT) return 1062;  // ERROR_SERVICE_NOT_ACTIVE
    return 1061;                                        // ERROR_SERVICE_CANNOT_ACCEPT_CTRL
  }

 private:
  std::string app_folder_;
};

class ConsoleDialogs : public Dialogs {
 public:
  void Information(const std::string& text, const std::string& title) override {
    std::fprintf(stderr, "%s: %s\n", title.c_str(), text.c_str());
  }
};

}  // namespace

std::unique_ptr<ServiceControlClient> MakeServiceControlClient(const std::string& app_folder) {
  return std::make_unique<DatagramServiceControl>(app_folder);
}

void ReportUnwritableFolder(EventLog& /*event_log*/, const std::string& folder, bool /*event_log_allowed*/) {
  std::fprintf(stderr, "tdacli: the application folder %s is not writable: settings, logs and files for the other "
               "services cannot be written there\n", folder.c_str());
}

namespace {

// Whether an agent already runs in this folder: its control endpoint is bound (a datagram connect
// succeeds; a stale endpoint of an ended agent is refused).
bool EndpointInUse(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  bool in_use = false;
  if (path.size() < sizeof a.sun_path) {
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    in_use = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  close(fd);
  return in_use;
}

}  // namespace

SystemFacilities MakeSystemFacilities(const std::string& app_folder) {
  SystemFacilities f;
  f.clock = MakeSystemClock();
  f.host = MakeSystemHostIdentity();
  f.event_log = std::make_unique<SyslogEventLog>();
  f.service_control = MakeServiceControlClient(app_folder);
  f.dialogs = std::make_unique<ConsoleDialogs>();
  f.http = MakeHttpClient();
  f.internet = MakeInternetConnection();
  return f;
}

std::optional<int> AnswerHelpRequest(const std::vector<std::string>& args, const ServiceIdentity& identity,
                                     const std::string& app_folder) {
  std::string folder = app_folder;
  if (!folder.empty() && folder.back() != '/') folder += '/';
  const std::string& n = identity.name;
  const std::string usage =
      "Usage: tdacli [--help]\n"
      "\n"
      "The " + identity.description + " (service \"" + n + "\") for Linux. There is no\n"
      "service manager: started, tdacli is the service and runs in the foreground until SIGTERM or\n"
      "Ctrl+C (SIGINT) stops it.\n"
      "\n"
      "Its application folder is the folder of the executable, here " + folder + "\n"
      "It holds the settings file TDRegInfo.TXT, the trace and error logs and the files the agent\n"
      "shares with the other programs of the suite: copy tdacli into that folder and start it there.\n"
      "\n"
      "Control codes reach the running service as decimal text on its control endpoint, the datagram\n"
      "socket \"<application folder>/" + n + ".svc\" (here " + ControlEndpointPath(app_folder, n) + "), for example:\n"
      "  agent-explorer control " + n + " 128 --app-dir " + app_folder + "\n"
      "A second agent is not started in the folder of a running one.\n"
      "\n"
      "With the file thinterminal.dat in the application folder it runs in user-session mode instead\n"
      "(one agent per user, as on a Terminal Server): the command listener opens after the user's\n"
      "login and logons arrive as request files.\n"
      "\n"
      "Options:\n"
      "  -h, --help   this text; nothing is started and no file is written\n"
      "Other words on the command line are ignored.\n";
  for (const std::string& a : args) {
    if (a == "--help" || a == "-h") {
      std::fputs(usage.c_str(), stdout);
      return 0;
    }
  }
  for (const std::string& a : args) {
    if (!a.empty() && a[0] == '-') {
      std::fprintf(stderr, "tdacli: unknown option %s\n%s", a.c_str(), usage.c_str());
      return 2;
    }
  }
  return std::nullopt;
}

int RunServiceProcess(const ServiceIdentity& identity, const std::string& app_folder,
                      const std::function<int(ServiceHost& host)>& program) {
  // Signals are taken by the host's own thread, never by the loop's.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  // A second agent in the same folder would take over the first one's control endpoint (and share its
  // files): it refuses to start. User-session agents share a folder by design and are not checked.
  std::string marker = app_folder;
  if (!marker.empty() && marker.back() != '/') marker += '/';
  const std::string endpoint = ControlEndpointPath(app_folder, identity.name);
  if (access((marker + "thinterminal.dat").c_str(), F_OK) != 0 && EndpointInUse(endpoint)) {
    std::fprintf(stderr, "tdacli: an agent is already running in %s (control endpoint %s); not started\n",
                 app_folder.c_str(), endpoint.c_str());
    return 1;
  }
  PosixServiceHost host(identity, app_folder);
  return program(host);
}

}  // namespace tdacli::platform
