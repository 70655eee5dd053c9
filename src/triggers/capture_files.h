#pragma once
// Files the sibling capture programs read: the 100% screen parameter and key files, the web-cam
// trigger, and the send-frames jobs.
#include <string>

namespace tdacli {

class Agent;

void Make100ScreensParamFile(Agent& agent);
void HandleWebCamTrigger(Agent& agent);
void LoadScreenParams(Agent& agent);
void SendFrames(Agent& agent, const std::string& request);
void SendFramesForGrabberTask(Agent& agent, const std::string& request);

// The job name of a send-frames request (third "@" field behind the keyword); empty when absent.
std::string SendFramesJobName(const std::string& request);
// Parses a 100% screen parameter line into `params` (defaults first), as read back at logoff.
struct ScreenParams;
void ParseScreenParamLine(const std::string& line, ScreenParams& params);

}  // namespace tdacli
