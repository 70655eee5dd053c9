#pragma once
// The login web service: used instead of the line protocol when the `Server` setting holds a web
// address (any text with ":"). The drivers hand the whole request over here and do nothing else.
namespace tdacli {

class Agent;

void WebService_LoginUser(Agent& agent);
void WebService_LogOffUser(Agent& agent);
void WebService_LoginStatus(Agent& agent);
// Fetches screen-grabber tasks; called by the trigger-file poller when the phone-home flag is set.
void WebService_PhoneHomeForScreenGrabberTasks(Agent& agent);

}  // namespace tdacli
