#include "state/sibling_reply.h"

#include "state/agent.h"

namespace tdacli {

bool SiblingReply::Await(Agent& agent, int seconds, bool events_after_each) const {
  auto answered = [this] { return value_ != 0; };
  for (int counter = 0; !answered() && counter < seconds && !agent.Ended(); ++counter) {
    agent.WaitUntil(1, answered);
    if (events_after_each) agent.DoEvents();
  }
  return answered();
}

}  // namespace tdacli
