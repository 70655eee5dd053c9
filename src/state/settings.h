#pragma once
// The eleven settings of "TDRegInfo.TXT", all held as text, with their defaults.
#include <array>
#include <string>

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
};

}  // namespace tdacli
