#include "login/web_service.h"

namespace tdacli {

// The web-service client is not part of this build yet: these hand-over points log nothing and leave
// the login flags and `LastLoginResult` as they are.
void WebService_LoginUser(Agent&) {}
void WebService_LogOffUser(Agent&) {}
void WebService_LoginStatus(Agent&) {}
void WebService_PhoneHomeForScreenGrabberTasks(Agent&) {}

}  // namespace tdacli
