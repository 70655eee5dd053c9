// tdacli: the Agent Client Login Service.
#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"
#include "service/agent.h"
#include "service/lifecycle.h"

int main() {
  using namespace tdacli;
  platform::ProcessInfo process = platform::CurrentProcess();
  platform::ServiceIdentity identity;
  return platform::RunServiceProcess(identity, process.exe_folder, [&](platform::ServiceHost& host) {
    platform::SystemFacilities sys = platform::MakeSystemFacilities(process.exe_folder);
    AgentOptions options;
    options.exe_folder = process.exe_folder;
    options.exe_base_name = process.exe_base_name;
    options.command_line = process.command_line;
    options.file_revision = process.file_revision;
    Agent agent({*sys.clock, *sys.host, *sys.event_log, *sys.service_control, *sys.dialogs, host}, options);
    agent.on_end_process = [&host] {
      host.ReportStopped();
      std::fflush(nullptr);
      std::_Exit(0);
    };
    // Without a writable folder nothing the agent does leaves a trace: say so once, then start anyway.
    if (!platform::FolderIsWritable(process.exe_folder)) platform::ReportUnwritableFolder(*sys.event_log, process.exe_folder);
    const bool session = agent.UserSessionMode();
    Form_Load(agent);
    if (agent.Ended()) return 0;
    AttachServiceHost(agent, !session);
    agent.loop().Run();
    return 0;
  });
}
