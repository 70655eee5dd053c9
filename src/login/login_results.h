#pragma once
// What a login stores, whichever transport brought it (the line conversation on port 5003 or the web
// service): the values received, the files written from them, the settings file. And what a login
// learned that belongs to the rooms above it, returned to them to act on.
#include <optional>
#include <string>
#include <string_view>

namespace tdacli {

class Agent;

// What one reply of the login server taught that the top acts on, at once, in the same event.
struct LoginOutcome {
  // A new `ListeningPorts` was saved: the console listener follows it, the siblings hear of it, and the
  // conversation's report says how that went (ReportListeningPortsUpdate).
  std::optional<std::string> saved_listening_ports;
  // The login completed and its results are stored: in user-session mode the console listener opens
  // now.
  bool logged_in = false;
};

// The live id fields "id:repeater address:repeater port:T|F"; missing fields keep their values.
void StoreLiveIdFields(Agent& agent, std::string_view fields);
// Stores what a successful login received: the FTP credentials file (an old one removed first), the
// valid IP mask file (removed when no mask came), and the settings file.
void StoreLoginResults(Agent& agent);

}  // namespace tdacli
