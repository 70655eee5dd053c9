#pragma once
// The eleven settings of "TDRegInfo.TXT", all held as text, with their defaults. They are stored and
// written back exactly as they came; where a setting is a switch, it is read as one here, once.
#include <string>

#include "common/text.h"

namespace tdacli {

struct Settings {
  std::string Server = "127.0.0.1";
  std::string Ext = "1234";
  std::string LocalTemp = "Unknown";
  std::string SvrTemp = "Unknown";
  std::string CurrentUser = "N/A";
  std::string CurrentEvent = "N/A";
  std::string UseTrace = "False";
  std::string NotificationMethod = "FileMessage";
  std::string ListeningPorts = "w,x,y,z";
  std::string PopEx = "false";
  std::string PopWinName = "false";

  // The trace files are written: `UseTrace` is exactly "True" (a server's "TRUE" is not).
  bool TraceOn() const { return UseTrace == "True"; }
  // Logins are announced by trigger files, which the poller looks for: "FileMessage" in any case.
  bool PollsTriggerFiles() const { return Lower(NotificationMethod) == "filemessage"; }
};

}  // namespace tdacli
