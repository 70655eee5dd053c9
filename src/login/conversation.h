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

namespace tdacli {

class Agent;

// Where the conversation's requests go: `Broadcast` in service, a recorder in tests and fuzzing.
// A sink that cannot send throws SendFault, which the data-arrival trap logs like any run-time error.
using RequestSink = std::function<void(std::string_view request)>;

struct SendFault : std::runtime_error {
  SendFault(int number, const std::string& description) : std::runtime_error(description), number(number) {}
  int number;
};

// Shared with the web-service login, which receives the same values in other wrapping.
// The live id fields "id:repeater address:repeater port:T|F"; missing fields keep their values.
void StoreLiveIdFields(Agent& agent, std::string_view fields);
// The local temp folder as received: lower-cased, then the folder tokens replaced.
std::string LocalTempFromReply(Agent& agent, std::string_view value);
// Stores what a successful login received: the FTP credentials file (an old one removed first), the
// valid IP mask file (removed when no mask came), and the settings file.
void StoreLoginResults(Agent& agent);

// The label of the first rule that matches `data` ("1", "1'", "2", ... "15"), in the order of testing.
std::string_view ReplyRuleFor(const Agent& agent, std::string_view data);

// Handles one reply: runs the first matching rule's action and sends its request. Errors propagate.
void DispatchReply(Agent& agent, const std::string& data, const RequestSink& send);

// DispatchReply inside the trap of the data-arrival handler: any error is logged as
// "Error Detected in Broadcast_DataArrival() Routine, " ... and ends the exchange (`ProtocolDone`).
void HandleReply(Agent& agent, const std::string& data, const RequestSink& send);

// The data-arrival event of `Broadcast`: waits for the connected state, reads everything pending and
// handles it as one reply.
void Broadcast_DataArrival(Agent& agent, size_t bytes);

}  // namespace tdacli
