#pragma once
// What an agent is built from: the platform's facilities and the options of the program that runs it.
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

}  // namespace tdacli
