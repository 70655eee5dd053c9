#pragma once
// Start-up, run modes and the service's life: what happens from the start of the executable to the
// end of the process.
#include <optional>
#include <string>

namespace tdacli {

class Agent;

// Account and password parsed from an installer command line ("/account=", "/password=").
struct CommandLineAccount {
  bool account_given = false;
  bool password_given = false;
  std::string account;
  std::string password;
};
// Nothing when the command line is malformed (the password part before the account part).
std::optional<CommandLineAccount> ParseAccount(const std::string& command_line);

// The service-specific exit code of a service start refused beside "thinterminal.dat".
inline constexpr unsigned long kUserSessionMarkerExitCode = 1;

// Entry point of every run. Returns after installer mode with the process to end.
void Form_Load(Agent& agent);
// Started by a service manager that waits for the start while "thinterminal.dat" is present: logs
// why, reports the service stopped with kUserSessionMarkerExitCode and ends the process.
void RefuseServiceStartInUserSessionMode(Agent& agent);
void Form_QueryUnload(Agent& agent, bool& cancel);
void Service_Start(Agent& agent);
void LoadTimer_Timer(Agent& agent);
void Service_Stop(Agent& agent);
void Service_ShutDown(Agent& agent);
void HideMainWindow(Agent& agent);

// Wires the service host's requests to the handlers (posted to the agent's loop). In user-session
// mode the agent has started itself and the host's Start is not raised again.
void AttachServiceHost(Agent& agent, bool raise_start);

// The start-up banner as logged.
std::string BuildStartupBanner(Agent& agent);

}  // namespace tdacli
