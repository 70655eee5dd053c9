#pragma once
// The login, logoff and status drivers: each connects the login socket to the TD Login Server on port
// 5003, waits in three 30-second stages (close, connect, protocol) while the conversation runs in the
// socket's events, then records the outcome in the shared login state. A `Server` holding ":" is a
// web-service address: the request is handed to the web-service client instead.
//
// Nothing guards against a driver started inside the wait of another: both use the one login socket
// and the same flags, so the outer call sees the inner call's outcome or runs into its own time-out.
#include <string>

namespace tdacli {

class Agent;

// Outcome in `LoginSucceeded` and `LastLoginResult`.
void LoginUser(Agent& agent);
// Outcome in `LogoffSucceeded` and `LastLoginResult`.
void LogOffUser(Agent& agent);
// Outcome in `StatusSucceeded`; `LastLoginResult` is not touched.
void LoginStatus(Agent& agent);

// The error event of the login socket (`Broadcast`): logged, and the socket closed. The waiting driver
// notices nothing and runs into its time-out.
void Broadcast_Error(Agent& agent, int number, const std::string& description);

}  // namespace tdacli
