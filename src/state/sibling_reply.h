#pragma once
// An answer that a sibling sends back as a control code (TDACMT's 131/132 to a 130, its 141/142 to a
// 140): the request expects it, the control handler resolves it, and the requester waits for it with
// events running, since that is the only way the answer can arrive.
#include <string>

namespace tdacli {

class Agent;

class SiblingReply {
 public:
  // A request goes out: an earlier answer is forgotten (0, none yet).
  void Expect() { value_ = 0; }
  // The answer arrived (1 or 2). Outside a request too: a late answer stays for the next look.
  void Resolve(int value) { value_ = value; }
  int value() const { return value_; }
  // The answer as the texts carry it: "0", "1" or "2".
  std::string Text() const { return std::to_string(value_); }
  // Up to `seconds` one-second waits, each ending at once when the answer arrives (or the process
  // ends); with `events_after_each`, pending events run once more after every wait. True when
  // answered.
  bool Await(Agent& agent, int seconds, bool events_after_each = false) const;

 private:
  int value_ = 0;
};

}  // namespace tdacli
