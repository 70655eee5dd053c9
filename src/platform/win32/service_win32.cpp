// The Windows service host: the program runs under the service control dispatcher when the service
// manager started it, and as an ordinary program otherwise (installer mode, user-session mode). The
// service thread runs the whole agent; the control handler (on the dispatcher's thread) only passes
// requests on through the ServiceEvents callbacks, which post them to the agent's loop.
#include <windows.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "platform/platform.h"
#include "platform/win32/sc_handle.h"

namespace tdacli::platform {

namespace {

constexpr const char* kEventLogKeyRoot = "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";
constexpr DWORD kStartWaitHintMs = 30000;
constexpr DWORD kStopWaitHintMs = 10000;

using win32::ScHandle;

std::string ExePath() { return CurrentProcess().exe_path; }

// Multi-string of the dependency names ("a\0b\0\0"), from a comma-separated list.
std::string DependencyList(const std::string& names) {
  std::string out;
  size_t start = 0;
  while (start <= names.size()) {
    size_t end = names.find(',', start);
    if (end == std::string::npos) end = names.size();
    if (end > start) {
      out.append(names, start, end - start);
      out.push_back('\0');
    }
    start = end + 1;
  }
  out.push_back('\0');
  return out;
}

// An agent that fails is started again by the service manager: after one minute, three times a day at
// most before the count starts afresh.
void SetFailureActions(SC_HANDLE svc) {
  SC_ACTION actions[3] = {{SC_ACTION_RESTART, 60000}, {SC_ACTION_RESTART, 60000}, {SC_ACTION_RESTART, 60000}};
  SERVICE_FAILURE_ACTIONSA failure{};
  failure.dwResetPeriod = 24 * 60 * 60;
  failure.cActions = 3;
  failure.lpsaActions = actions;
  ChangeServiceConfig2A(svc, SERVICE_CONFIG_FAILURE_ACTIONS, &failure);
}

// A service installed by the Windows Installer package has no failure actions (the package cannot
// carry them): the service sets the same ones as "/s" does on its first start. Actions an
// administrator has set since are kept.
void EnsureFailureActions(const std::string& name) {
  ScHandle scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!scm) return;
  ScHandle svc(OpenServiceA(scm.get(), name.c_str(), SERVICE_QUERY_CONFIG | SERVICE_CHANGE_CONFIG | SERVICE_START));
  if (!svc) return;
  DWORD needed = 0;
  QueryServiceConfig2A(svc.get(), SERVICE_CONFIG_FAILURE_ACTIONS, nullptr, 0, &needed);
  std::vector<BYTE> buf(needed > sizeof(SERVICE_FAILURE_ACTIONSA) ? needed : sizeof(SERVICE_FAILURE_ACTIONSA));
  if (QueryServiceConfig2A(svc.get(), SERVICE_CONFIG_FAILURE_ACTIONS, buf.data(), static_cast<DWORD>(buf.size()),
                           &needed) &&
      reinterpret_cast<SERVICE_FAILURE_ACTIONSA*>(buf.data())->cActions > 0)
    return;
  SetFailureActions(svc.get());
}

class Win32ServiceHost : public ServiceHost {
 public:
  Win32ServiceHost(ServiceIdentity id, bool by_scm) : id_(std::move(id)), by_scm_(by_scm) {}

  bool StartedByServiceManager() const override { return by_scm_; }
  bool ServiceManagerWaitsForStart() const override { return by_scm_; }

  bool IsInstalled() override {
    ScHandle scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!scm) return false;
    ScHandle svc(OpenServiceA(scm.get(), id_.name.c_str(), SERVICE_QUERY_STATUS));
    return static_cast<bool>(svc);
  }

  bool Install(const std::string& account, const std::string& password) override {
    ScHandle scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
    if (!scm) return false;
    const std::string exe = ExePath();
    const std::string binary = "\"" + exe + "\"";
    const std::string deps = DependencyList(id_.dependencies);
    ScHandle svc(CreateServiceA(scm.get(), id_.name.c_str(), id_.display_name.c_str(), SERVICE_ALL_ACCESS,
                                SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                binary.c_str(), nullptr, nullptr, deps.c_str(),
                                account.empty() ? nullptr : account.c_str(),  // none: local system
                                account.empty() ? nullptr : password.c_str()));
    if (!svc) return false;

    std::string description = id_.description;
    SERVICE_DESCRIPTIONA desc{description.data()};
    ChangeServiceConfig2A(svc.get(), SERVICE_CONFIG_DESCRIPTION, &desc);

    SetFailureActions(svc.get());

    RegisterEventSource(exe);
    return true;
  }

  bool Uninstall() override {
    ScHandle scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    bool deleted = false;
    if (scm) {
      ScHandle svc(OpenServiceA(scm.get(), id_.name.c_str(), SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE));
      if (svc) {
        StopAndWait(svc.get());
        deleted = DeleteService(svc.get()) != 0;
      }
    }
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, (std::string(kEventLogKeyRoot) + id_.name).c_str());
    return deleted;
  }

  void Attach(ServiceEvents events) override {
    std::vector<int> early;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      events_ = std::move(events);
      attached_ = true;
      early.swap(early_controls_);
    }
    if (events_.on_start) events_.on_start();
    for (int code : early)
      if (events_.on_control) events_.on_control(code);
  }

  void ReportRunning() override {
    SetStatus(SERVICE_RUNNING, 0, SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_PAUSE_CONTINUE);
  }

  void ReportStopped() override {
    SetStatus(SERVICE_STOPPED, 0, 0);
  }

  void ReportStartFailed(unsigned long service_exit_code) override {
    SetStatus(SERVICE_STOPPED, 0, 0, static_cast<DWORD>(service_exit_code));
  }

  // --- used by the dispatcher glue below
  bool RegisterHandler() {
    status_handle_ = RegisterServiceCtrlHandlerExA(id_.name.c_str(), &HandlerEx, this);
    return status_handle_ != nullptr;
  }
  void ReportStartPending() { SetStatus(SERVICE_START_PENDING, kStartWaitHintMs, 0); }
  bool StoppedReported() const { return stopped_reported_; }

 private:
  // A service-specific exit code other than 0 goes with the Win32 exit code that announces it.
  void SetStatus(DWORD state, DWORD wait_hint, DWORD accepted, DWORD service_exit_code = 0) {
    if (!by_scm_ || !status_handle_) return;
    std::lock_guard<std::mutex> lock(status_mutex_);
    if (stopped_reported_) return;
    status_.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status_.dwCurrentState = state;
    status_.dwControlsAccepted = accepted;
    status_.dwWin32ExitCode = service_exit_code != 0 ? ERROR_SERVICE_SPECIFIC_ERROR : NO_ERROR;
    status_.dwServiceSpecificExitCode = service_exit_code;
    status_.dwWaitHint = wait_hint;
    status_.dwCheckPoint = (state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING) ? ++checkpoint_ : 0;
    if (state == SERVICE_STOPPED) stopped_reported_ = true;
    SetServiceStatus(status_handle_, &status_);
  }

  // Re-announces the current state (interrogation, refused pause/continue).
  void Reannounce() {
    if (!by_scm_ || !status_handle_) return;
    std::lock_guard<std::mutex> lock(status_mutex_);
    if (!stopped_reported_) SetServiceStatus(status_handle_, &status_);
  }

  ServiceEvents EventsCopy() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }

  static DWORD WINAPI HandlerEx(DWORD control, DWORD, void*, void* context) {
    auto* self = static_cast<Win32ServiceHost*>(context);
    return self->OnControl(control);
  }

  DWORD OnControl(DWORD control) {
    if (control >= 128 && control <= 255) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!attached_) {
          // Arrived while the program was still loading: delivered once it attaches.
          early_controls_.push_back(static_cast<int>(control));
          return NO_ERROR;
        }
      }
      ServiceEvents ev = EventsCopy();
      if (ev.on_control) ev.on_control(static_cast<int>(control));
      return NO_ERROR;
    }
    ServiceEvents ev = EventsCopy();
    switch (control) {
      case SERVICE_CONTROL_STOP:
        SetStatus(SERVICE_STOP_PENDING, kStopWaitHintMs, 0);
        if (ev.on_stop) ev.on_stop();
        return NO_ERROR;
      case SERVICE_CONTROL_SHUTDOWN:
        SetStatus(SERVICE_STOP_PENDING, kStopWaitHintMs, 0);
        if (ev.on_shutdown) ev.on_shutdown();
        return NO_ERROR;
      case SERVICE_CONTROL_PAUSE:
        // Accepted so that the agent can log it; the service keeps running.
        if (ev.on_pause) ev.on_pause();
        Reannounce();
        return NO_ERROR;
      case SERVICE_CONTROL_CONTINUE:
        if (ev.on_continue) ev.on_continue();
        Reannounce();
        return NO_ERROR;
      case SERVICE_CONTROL_INTERROGATE:
        Reannounce();
        return NO_ERROR;
      default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
  }

  void RegisterEventSource(const std::string& exe) {
    HKEY key = nullptr;
    const std::string path = std::string(kEventLogKeyRoot) + id_.name;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE,
                        nullptr, &key, nullptr) != ERROR_SUCCESS)
      return;
    // The message table compiled into the executable gives Event Viewer the text of each entry.
    RegSetValueExA(key, "EventMessageFile", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(exe.c_str()),
                   static_cast<DWORD>(exe.size() + 1));
    const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
    RegSetValueExA(key, "TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&types), sizeof types);
    RegCloseKey(key);
  }

  // Asks a running service to stop and waits (at most 30 s) until the service manager sees it stopped.
  static void StopAndWait(SC_HANDLE svc) {
    SERVICE_STATUS st{};
    if (!QueryServiceStatus(svc, &st) || st.dwCurrentState == SERVICE_STOPPED) return;
    if (st.dwCurrentState != SERVICE_STOP_PENDING && !ControlService(svc, SERVICE_CONTROL_STOP, &st)) return;
    for (int i = 0; i < 120 && st.dwCurrentState != SERVICE_STOPPED; ++i) {
      Sleep(250);
      if (!QueryServiceStatus(svc, &st)) return;
    }
  }

  ServiceIdentity id_;
  const bool by_scm_;
  SERVICE_STATUS_HANDLE status_handle_ = nullptr;
  std::mutex status_mutex_;
  SERVICE_STATUS status_{};
  DWORD checkpoint_ = 0;
  bool stopped_reported_ = false;

  std::mutex mutex_;  // events_, attached_ and early_controls_: the handler runs on another thread
  ServiceEvents events_;
  bool attached_ = false;
  std::vector<int> early_controls_;
};

class Win32EventLog : public EventLog {
 public:
  explicit Win32EventLog(const std::string& source) : handle_(RegisterEventSourceA(nullptr, source.c_str())) {}
  ~Win32EventLog() override {
    if (handle_) DeregisterEventSource(handle_);
  }
  void Write(int type, const std::string& message) override {
    if (!handle_) return;
    WORD event_type = EVENTLOG_INFORMATION_TYPE;
    if (type == 1) event_type = EVENTLOG_ERROR_TYPE;
    else if (type == 2) event_type = EVENTLOG_WARNING_TYPE;
    // The message table holds one "%1" message per type, with the type as its id.
    const DWORD event_id = static_cast<DWORD>(event_type);
    const char* strings[1] = {message.c_str()};
    ReportEventA(handle_, event_type, 0, event_id, nullptr, 1, 0, strings, nullptr);
  }

 private:
  HANDLE handle_;
};

class Win32ServiceControl : public ServiceControlClient {
 public:
  unsigned long SendControl(const std::string& service, int code) override {
    SC_HANDLE scm = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (!scm) return GetLastError();
    SC_HANDLE svc = OpenServiceA(scm, service.c_str(), SERVICE_USER_DEFINED_CONTROL);
    if (!svc) {
      const DWORD e = GetLastError();
      CloseServiceHandle(scm);
      return e;
    }
    SERVICE_STATUS status{};
    const DWORD e = ControlService(svc, static_cast<DWORD>(code), &status) ? 0 : GetLastError();
    CloseServiceHandle(svc);
    CloseServiceHandle(scm);
    return e;
  }
};

class MessageBoxDialogs : public Dialogs {
 public:
  void Information(const std::string& text, const std::string& title) override {
    MessageBoxA(nullptr, text.c_str(), title.c_str(), MB_OK | MB_ICONINFORMATION);
  }
};

// What the service thread needs: ServiceMain receives no context argument, so the dispatcher glue
// keeps the one service process of this program here for the time the dispatcher runs.
struct ServiceProcess {
  const ServiceIdentity* identity;
  const std::function<int(ServiceHost&)>* program;
  int exit_code = 0;
  HANDLE done = nullptr;
};

std::atomic<ServiceProcess*>& CurrentServiceProcess() {
  static std::atomic<ServiceProcess*> process{nullptr};
  return process;
}

void WINAPI ServiceMain(DWORD, LPSTR*) {
  ServiceProcess* sp = CurrentServiceProcess().load();
  if (!sp) return;
  {
    Win32ServiceHost host(*sp->identity, true);
    if (host.RegisterHandler()) {
      host.ReportStartPending();
      EnsureFailureActions(sp->identity->name);
      sp->exit_code = (*sp->program)(host);
      // The program normally ends the process itself after reporting; if it returned instead, the
      // service manager still has to see the service stopped.
      if (!host.StoppedReported()) host.ReportStopped();
    } else {
      sp->exit_code = static_cast<int>(GetLastError());
    }
  }
  SetEvent(sp->done);
}

}  // namespace

std::unique_ptr<ServiceControlClient> MakeServiceControlClient(const std::string& /*app_folder*/) {
  return std::make_unique<Win32ServiceControl>();
}

SystemFacilities MakeSystemFacilities(const std::string& app_folder) {
  SystemFacilities f;
  f.clock = MakeSystemClock();
  f.host = MakeSystemHostIdentity();
  f.event_log = std::make_unique<Win32EventLog>(ServiceIdentity{}.name);
  f.service_control = MakeServiceControlClient(app_folder);
  f.dialogs = std::make_unique<MessageBoxDialogs>();
  f.http = MakeHttpClient();
  f.internet = MakeInternetConnection();
  return f;
}

void ReportUnwritableFolder(EventLog& event_log, const std::string& folder, bool event_log_allowed) {
  // In user-session mode, or beside "thinterminal.root", the agent writes nothing to the event log;
  // with its folder unwritable it then has nowhere to say this.
  if (!event_log_allowed) return;
  event_log.Write(1, "The application folder " + folder +
                         " is not writable: settings, logs and files for the other services cannot be written there");
}

std::optional<int> AnswerHelpRequest(const std::vector<std::string>& /*args*/, const ServiceIdentity& /*identity*/,
                                     const std::string& /*app_folder*/) {
  // A GUI-subsystem program has no standard output, and every start by hand is the installer.
  return std::nullopt;
}

int RunServiceProcess(const ServiceIdentity& identity, const std::string& /*app_folder*/,
                      const std::function<int(ServiceHost& host)>& program) {
  ServiceProcess sp{&identity, &program, 0, CreateEventA(nullptr, TRUE, FALSE, nullptr)};
  CurrentServiceProcess().store(&sp);
  std::string name = identity.name;
  SERVICE_TABLE_ENTRYA table[] = {{name.data(), &ServiceMain}, {nullptr, nullptr}};
  if (StartServiceCtrlDispatcherA(table)) {
    // All services of the process have stopped; the service thread may still be finishing.
    WaitForSingleObject(sp.done, INFINITE);
    CurrentServiceProcess().store(nullptr);
    CloseHandle(sp.done);
    return sp.exit_code;
  }
  const DWORD error = GetLastError();
  CurrentServiceProcess().store(nullptr);
  CloseHandle(sp.done);
  if (error != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) return static_cast<int>(error);

  // Not started by the service manager: installer mode or user-session mode, on this thread. The
  // program has no console (it is built for the GUI subsystem): in user-session mode the end of the
  // session reaches it through its hidden main form.
  Win32ServiceHost host(identity, false);
  return program(host);
}

}  // namespace tdacli::platform
