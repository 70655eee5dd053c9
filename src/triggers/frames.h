#pragma once
// Housekeeping of the frame files the sibling capture programs leave behind.
#include <string>

namespace tdacli {

class Agent;

// Deletes frame files at least the schedule's maximum age (calendar days) old.
void CleanupFrames(Agent& agent, const std::string& reason);
// Removes all capture activity after a successful login that brought no 100% screen parameters.
void WipeOut(Agent& agent);
// The frame folder: LocalTemp with a separator, then "100Screens".
std::string FrameFolder(Agent& agent);

}  // namespace tdacli
