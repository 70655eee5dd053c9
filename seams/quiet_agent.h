#pragma once
// Facilities that go nowhere, bundled for programs that run an agent without a host around it
// (benchmarks and fuzz targets). Each program brings its own clock and application folder.
#include <memory>
#include <string>

#include "platform/clock.h"
#include "seams/quiet_facilities.h"
#include "service/wiring.h"

namespace tdacli {

struct QuietFacilities {
  // A new agent whose application folder is `folder`; the facilities must outlive it.
  std::unique_ptr<Agent> MakeAgent(platform::Clock& clock, const std::string& folder) {
    AgentOptions o;
    o.exe_folder = folder;
    return NewAgent(
        AgentFacilities{clock, host, event_log, service_control, dialogs, service_host, http, internet}, o);
  }

  platform::FixedHostIdentity host;
  platform::QuietEventLog event_log;
  platform::QuietServiceControl service_control;
  platform::QuietDialogs dialogs;
  platform::QuietServiceHost service_host;
  platform::QuietHttpClient http;
  platform::LanConnection internet;
};

}  // namespace tdacli
