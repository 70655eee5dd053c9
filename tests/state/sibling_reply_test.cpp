#include <gtest/gtest.h>

#include "platform/event_loop.h"
#include "state/agent.h"
#include "state/sibling_reply.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::TestAgent;

TEST(SiblingReply, ExpectForgetsAnEarlierAnswer) {
  SiblingReply reply;
  reply.Resolve(2);
  EXPECT_EQ(reply.value(), 2);
  EXPECT_EQ(reply.Text(), "2");
  reply.Expect();
  EXPECT_EQ(reply.value(), 0);
  EXPECT_EQ(reply.Text(), "0");
}

TEST(SiblingReply, AnAnswerArrivingInsideTheWaitEndsItAtOnce) {
  TestAgent t;
  SiblingReply reply;
  reply.Expect();
  platform::Timer answer(t->loop());
  answer.on_tick = [&] {
    answer.SetEnabled(false);
    reply.Resolve(1);
  };
  answer.SetInterval(2500);
  answer.SetEnabled(true);
  const int64_t start = t.clock.NowMs();
  EXPECT_TRUE(reply.Await(*t, 31));
  EXPECT_EQ(reply.value(), 1);
  EXPECT_EQ(t.clock.NowMs() - start, 2500);
}

TEST(SiblingReply, WithoutAnAnswerTheWaitTakesItsSecondsAndFails) {
  TestAgent t;
  SiblingReply reply;
  reply.Expect();
  const int64_t start = t.clock.NowMs();
  EXPECT_FALSE(reply.Await(*t, 11));
  EXPECT_EQ(t.clock.NowMs() - start, 11'000);
  EXPECT_EQ(reply.Text(), "0");
}

TEST(SiblingReply, AnAnswerAlreadyThereIsNotWaitedFor) {
  TestAgent t;
  SiblingReply reply;
  reply.Resolve(2);
  const int64_t start = t.clock.NowMs();
  EXPECT_TRUE(reply.Await(*t, 31, /*events_after_each=*/true));
  EXPECT_EQ(t.clock.NowMs(), start);
}

}  // namespace
}  // namespace tdacli
