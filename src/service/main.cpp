// tdacli: the Agent Client Login Service.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/logging.h"
#include "platform/main_window.h"
#include "platform/platform.h"
#include "service/lifecycle.h"
#include "service/preset_files.h"
#include "service/wiring.h"

int main(int argc, char** argv) {
  using namespace tdacli;
  platform::ProcessInfo process = platform::CurrentProcess();
  if (auto rc = platform::AnswerHelpRequest(std::vector<std::string>(argv + 1, argv + argc),
                                            platform::ServiceIdentity{}, process.exe_folder))
    return *rc;
  // Run by the installer package to write a pre-configured roll-out's files, then done.
  if (auto rc = RunPresetSwitch(process.command_line, process.exe_folder)) return *rc;
  platform::ServiceIdentity identity;
  return platform::RunServiceProcess(identity, process.exe_folder, [&](platform::ServiceHost& host) {
    platform::SystemFacilities sys = platform::MakeSystemFacilities(process.exe_folder);
    AgentOptions options;
    options.exe_folder = process.exe_folder;
    options.exe_base_name = process.exe_base_name;
    options.command_line = process.command_line;
    options.file_revision = process.file_revision;
    Agent agent({*sys.clock, *sys.host, *sys.event_log, *sys.service_control, *sys.dialogs, host, *sys.http, *sys.internet}, options);
    WireAgent(agent);
    agent.on_end_process = [&host] {
      host.ReportStopped();
      std::fflush(nullptr);
      std::_Exit(0);
    };
    // Without a writable folder nothing the agent does leaves a trace: say so once, then start anyway.
    // The run mode is known from here on (the marker files beside the executable).
    if (!platform::FolderIsWritable(process.exe_folder))
      platform::ReportUnwritableFolder(*sys.event_log, process.exe_folder, EventLogAllowed(agent));
    const bool session = agent.UserSessionMode();
    Form_Load(agent);
    if (agent.Ended()) return 0;
    AttachServiceHost(agent, !session);
    // The hidden main form, on this thread, whose loop dispatches its messages: the system's request
    // to close it (session end, shutdown) is the form's query-unload.
    auto form = platform::MakeMainWindow([&agent] {
      bool cancel = false;
      Form_QueryUnload(agent, cancel);
      return cancel;
    });
    agent.loop().Run();
    return 0;
  });
}
