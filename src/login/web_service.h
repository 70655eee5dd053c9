#pragma once
// The login web service: used instead of the line protocol when the `Server` setting holds a web
// address (any text with ":"). The drivers hand the whole request over here and do nothing else. Each
// request is one blocking GET through the platform's HTTP client (no events run during it; its 10 s
// time-outs bound the block); the answer is the service's XML string result, searched for markers.
#include <optional>
#include <string>
#include <string_view>

namespace tdacli {

class Agent;

void WebService_LoginUser(Agent& agent);
void WebService_LogOffUser(Agent& agent);
void WebService_LoginStatus(Agent& agent);
// What a phone-home call for screen-grabber tasks brought back. The caller hands the job on and then
// acknowledges the task (AcknowledgeGrabberTask), in that order.
struct PhoneHomeOutcome {
  bool task_received = false;              // the service answered with a task (not "NONE", not an error)
  std::optional<std::string> send_frames;  // the send-frames job it holds: one line, no line breaks
};
// Fetches screen-grabber tasks; called by the trigger-file poller when the phone-home flag is set.
PhoneHomeOutcome WebService_PhoneHomeForScreenGrabberTasks(Agent& agent);
// The receipt of a task, once its job has been handed on: one trace line, then events run.
void AcknowledgeGrabberTask(Agent& agent);
// After a phone-home call (or its attempt): the next one is due 30 seconds from now.
void ScheduleNextPhoneHome(Agent& agent);

// The web server named by a `Server` setting: the host (with ":" and a port when one was given) and
// whether the scheme is HTTPS.
struct WebServer {
  std::string host;
  bool https = false;
  std::string Base() const { return (https ? "https://" : "http://") + host; }
};
WebServer ParseWebServer(std::string_view server);

// Applies the fields of a login reply (the text after "SUCCESS|") to the settings and login state,
// each field tested against every key in table order. Throws on a flag that is not a Boolean.
void ApplyLoginReplyFields(Agent& agent, std::string_view fields);

// Steps after the phone-home fetch: `response` is what came back for `url` (empty when nothing did).
PhoneHomeOutcome HandlePhoneHomeReply(Agent& agent, const std::string& url, const std::string& response);

// The text of a Boolean conversion: "True"/"False" in any case or a number (not 0 is true); any other
// text throws the "Type mismatch" error (13).
bool ToBoolean(std::string_view text);

}  // namespace tdacli
