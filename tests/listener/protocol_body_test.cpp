#include <gtest/gtest.h>

#include "listener/protocol_body.h"

namespace tdacli::listener {
namespace {

const std::string B = "[BEGIN_PROTOCOL]";
const std::string E = "[END_PROTOCOL]";

TEST(ExtractProtocolBody, TextBetweenTheTags) {
  EXPECT_EQ(ExtractProtocolBody("xx" + B + "abc" + E + "yy"), "abc");
  EXPECT_EQ(ExtractProtocolBody(B + "|SENDFRAMES|a@b@job1" + E), "|SENDFRAMES|a@b@job1");
  EXPECT_EQ(ExtractProtocolBody(B + E), "");
}

TEST(ExtractProtocolBody, EndTagBeforeBeginTagGivesTheWholeTextWithoutTags) {
  EXPECT_EQ(ExtractProtocolBody(E + "abc" + B), "abc");
  EXPECT_EQ(ExtractProtocolBody("1" + E + "2" + B + "3"), "123");
}

TEST(ExtractProtocolBody, TwoBlocksGiveTheLastBeginToTheLastEndWithInnerTagsRemoved) {
  EXPECT_EQ(ExtractProtocolBody(B + "one" + E + "mid" + B + "two" + E), "two");
  EXPECT_EQ(ExtractProtocolBody(B + "a" + B + "b" + E + "c" + E + "d"), "bc");
  EXPECT_EQ(ExtractProtocolBody(B + "a" + E + "b" + E), "ab");  // first begin, last end; the inner end tag goes
}

TEST(ExtractProtocolBody, OnlyOneTagOrNoneLeavesTheTextWithTheTagRemoved) {
  EXPECT_EQ(ExtractProtocolBody("abc"), "abc");
  EXPECT_EQ(ExtractProtocolBody(B + "abc"), "abc");
  EXPECT_EQ(ExtractProtocolBody("abc" + E), "abc");
  EXPECT_EQ(ExtractProtocolBody(""), "");
  EXPECT_EQ(ExtractProtocolBody("[BEGIN_PROTOCOL"), "[BEGIN_PROTOCOL");
}

TEST(ExtractProtocolBody, RemovalIsPlainAndCaseSensitive) {
  EXPECT_EQ(ExtractProtocolBody("[begin_protocol]x[end_protocol]"), "[begin_protocol]x[end_protocol]");
  // Removing the begin tags first can join pieces into a new end tag, which then goes too.
  EXPECT_EQ(ExtractProtocolBody("[END_" + B + "PROTOCOL]z"), "z");
  // ... but begin tags joined by the removal of end tags stay.
  EXPECT_EQ(ExtractProtocolBody("[BEGIN_" + E + "PROTOCOL]z"), "[BEGIN_PROTOCOL]z");
}

TEST(ExtractProtocolBody, TheInputIsNotChanged) {
  const std::string in = "x" + B + "y" + E;
  std::string copy = in;
  EXPECT_EQ(ExtractProtocolBody(copy), "y");
  EXPECT_EQ(copy, in);
}

}  // namespace
}  // namespace tdacli::listener
