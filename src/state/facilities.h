#pragma once
// What an agent is built from: the platform's facilities, the options of the program that runs it,
// and the hooks through which the top lets lower rooms start work of higher ones.
#include <functional>
#include <string>

#include "platform/clock.h"
#include "platform/host_identity.h"
#include "platform/internet.h"
#include "platform/service_host.h"

namespace tdacli {

class Agent;

struct AgentFacilities {
  platform::Clock& clock;
  platform::HostIdentity& host;
  platform::EventLog& event_log;
  platform::ServiceControlClient& service_control;
  platform::Dialogs& dialogs;
  platform::ServiceHost& service_host;
  platform::HttpClient& http;
  platform::InternetConnection& internet;
};

struct AgentOptions {
  std::string exe_folder;               // folder of the executable (the application folder)
  std::string exe_base_name = "tdacli"; // base name as the system reports it
  std::string command_line;
  int file_revision = 0;                // revision of the program's own file version
};

// Work of a higher room that a lower one starts; the top registers each when it wires the agent.
struct AgentHooks {
  // The console listener moves to the port of the saved `ListeningPorts`; false when it cannot.
  std::function<bool(Agent&)> ListenOnSavedPort;
  // User-session mode: the console listener opens once a user has logged in.
  std::function<void(Agent&)> ReopenListenerAfterLogin;
  // One screen-grabber task received by the phone-home call.
  std::function<void(Agent&, const std::string& task)> SendFramesForGrabberTask;
};

}  // namespace tdacli
