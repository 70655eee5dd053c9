#pragma once
// The client side of the line conversation with the TD Login Server on port 5003. There is no framing:
// each request goes out as one plain text without terminator, and everything one data-arrival event
// reads is one reply. The next step is decided by the reply text alone (and by `LoginRequestKind` for
// the greeting and "ID OK"), through a table of rules tested in a fixed order.
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/errors.h"
#include "login/login_results.h"

namespace tdacli {

class Agent;

// Where the conversation's requests go: the login socket in service, a recorder in tests and fuzzing.
// A sink that cannot send throws SendFault, which the data-arrival trap logs like any run-time error.
using RequestSink = std::function<void(std::string_view request)>;

struct SendFault : NumberedError {
  using NumberedError::NumberedError;
};

// The label of the first rule that matches `data` ("1", "1'", "2", ... "15"), in the order of testing.
std::string_view ReplyRuleFor(const Agent& agent, std::string_view data);

// Handles one reply: runs the first matching rule's action and sends its request; returns what the
// reply taught that the top acts on. Errors propagate.
LoginOutcome DispatchReply(Agent& agent, const std::string& data, const RequestSink& send);

// DispatchReply inside the trap of the data-arrival handler: any error is logged as
// "Error Detected in Broadcast_DataArrival() Routine, " ... and ends the exchange (`ProtocolDone`).
// What the reply taught before a fault is still returned.
LoginOutcome HandleReply(Agent& agent, const std::string& data, const RequestSink& send);

// The data-arrival event of the login socket (`Broadcast`): waits for the connected state, reads
// everything pending and handles it as one reply. The top's handler of the event acts on what it
// returns before the event ends, so the listener moves at the moment of the reply.
LoginOutcome Broadcast_DataArrival(Agent& agent, size_t bytes);

// The end of a listening-ports update the server pushed: logs whether the saved list is now in
// force ("Updated Registry ...") or not ("Error Updating Registry ...").
void ReportListeningPortsUpdate(Agent& agent, const std::string& ports, bool updated);

}  // namespace tdacli
