#pragma once
// What a login stores, whichever transport brought it (the line conversation on port 5003 or the web
// service): the values received, the files written from them, the settings file. And what a login
// learned that belongs to the rooms above it, returned to them to act on.
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "state/shared_state.h"

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
// A received value on its way into a file, and the name its Warning line gives it.
struct ReceivedValue {
  std::string LoginState::*field;
  const char* name;
};
// Cuts received values at their first CR, LF or NUL before they go into a file (one Warning line each,
// naming the value) and keeps them cut, so that a later file of the same values warns no more.
void CutReceivedValues(Agent& agent, std::initializer_list<ReceivedValue> values);
// Adds a finding of the post-login checks to the login result the console asks for ("|LOGIN|").
void AppendToLoginResult(Agent& agent, const std::string& text);

// Stores what a successful login received: the FTP credentials file (an old one removed first), the
// valid IP mask file (removed when no mask came), and the settings file.
void StoreLoginResults(Agent& agent);

}  // namespace tdacli
