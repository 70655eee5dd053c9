#pragma once
// Factory for the real facilities of the running OS.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/host_identity.h"
#include "platform/internet.h"
#include "platform/service_host.h"

namespace tdacli::platform {

struct SystemFacilities {
  std::unique_ptr<Clock> clock;
  std::unique_ptr<HostIdentity> host;
  std::unique_ptr<EventLog> event_log;
  std::unique_ptr<ServiceControlClient> service_control;
  std::unique_ptr<Dialogs> dialogs;
  std::unique_ptr<HttpClient> http;
  std::unique_ptr<InternetConnection> internet;
};

SystemFacilities MakeSystemFacilities(const std::string& app_folder);

// The running host's own identity (names, adapter addresses, version, Windows folder).
std::unique_ptr<HostIdentity> MakeSystemHostIdentity();
// Sends user-defined control codes to the suite's services installed beside the agent in app_folder.
std::unique_ptr<ServiceControlClient> MakeServiceControlClient(const std::string& app_folder);

// Whether a file can be created in `folder` (written and removed again).
bool FolderIsWritable(const std::string& folder);
// The one sign of an application folder that cannot be written (settings, logs and the files for the
// other services would all be lost silently): a line on standard error on Linux, an event-log entry
// on Windows unless the run mode keeps the agent out of the event log (`event_log_allowed` false:
// then nothing is said there). The agent starts all the same.
void ReportUnwritableFolder(EventLog& event_log, const std::string& folder, bool event_log_allowed);

// The agent's command line, looked at before anything else is done. On Linux, where a started agent
// is the service in the foreground, "--help" or "-h" prints how to run it (exit status 0) and any
// other word that starts with "-" prints the same after a refusal (status 2); other words are left
// alone, as they always were. On Windows every start by hand is the installer: nothing is answered
// here. Returns the exit status when the program is to end now.
std::optional<int> AnswerHelpRequest(const std::vector<std::string>& args, const ServiceIdentity& identity,
                                     const std::string& app_folder);

// Runs `program(host)` as the service process: on Windows under the service control dispatcher when
// the service manager started us, otherwise directly. Returns the process exit code.
int RunServiceProcess(const ServiceIdentity& identity, const std::string& app_folder,
                      const std::function<int(ServiceHost& host)>& program);

}  // namespace tdacli::platform
