#pragma once
// The service-hosting facility: runs the program as the service "TDACLI", installs and removes it, and
// delivers the service manager's requests to the agent's loop as events.
#include <functional>
#include <memory>
#include <string>

namespace tdacli::platform {

struct ServiceIdentity {
  std::string name = "TDACLI";
  std::string display_name = "TD - Agent Client Login Service";
  std::string description = "Tyndrel Agent Client Login Service";
  std::string dependencies = "lanmanworkstation";
};

// Requests of the service manager. The host may call these from its own thread: the receiver posts
// them to its loop and wakes it.
struct ServiceEvents {
  std::function<void()> on_start;
  std::function<void()> on_stop;
  std::function<void()> on_shutdown;
  std::function<void()> on_pause;
  std::function<void()> on_continue;
  std::function<void(int code)> on_control;
};

class ServiceHost {
 public:
  virtual ~ServiceHost() = default;
  virtual bool StartedByServiceManager() const = 0;
  // A service manager started this process and waits for it to report the service running or
  // stopped. False on POSIX, where a hand-started agent runs as the service and nobody waits for it.
  virtual bool ServiceManagerWaitsForStart() const = 0;
  virtual bool IsInstalled() = 0;
  // Installs under the given account ("" = local system account); true on success.
  virtual bool Install(const std::string& account, const std::string& password) = 0;
  virtual bool Uninstall() = 0;
  // Start running: from now on requests arrive through `events`.
  virtual void Attach(ServiceEvents events) = 0;
  // The Start request has been handled: the manager may now see the service running.
  virtual void ReportRunning() = 0;
  // The process ends now (the Stop banner has been written).
  virtual void ReportStopped() = 0;
  // The start is refused: the service manager sees the service stopped with this service-specific
  // exit code (its Win32 exit code says that the code is the service's own).
  virtual void ReportStartFailed(unsigned long service_exit_code) = 0;
};

// Installer-mode message box; never shown with "/s".
class Dialogs {
 public:
  virtual ~Dialogs() = default;
  virtual void Information(const std::string& text, const std::string& title) = 0;
};

// Windows event log (syslog on POSIX). Types: 1 error, 2 warning, 4 information.
class EventLog {
 public:
  virtual ~EventLog() = default;
  virtual void Write(int type, const std::string& message) = 0;
};

// Sends a user-defined control code to another service of the suite; returns 0 or the Windows error
// number (1060 no such service, 1062 not running, ...).
class ServiceControlClient {
 public:
  virtual ~ServiceControlClient() = default;
  virtual unsigned long SendControl(const std::string& service, int code) = 0;
};

}  // namespace tdacli::platform
