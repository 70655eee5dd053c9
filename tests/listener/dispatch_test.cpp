// The dispatcher on its own, fed text directly and answering into a collector: the keyword order and
// the routing of the commands that are handled elsewhere.
#include <gtest/gtest.h>

#include "common/local_host.h"
#include "config/configuration.h"
#include "listener/command_replies.h"
#include "listener/console.h"
#include "listener/dispatch.h"
#include "listener/listener.h"
#include "support/test_agent.h"

namespace tdacli::listener {
namespace {

struct Collected : CommandReplies {
  std::vector<std::pair<std::string, std::string>> replies;  // reply, prefix
  void SendCommandReply(const std::string& reply, std::string_view prefix) override {
    replies.emplace_back(reply, std::string(prefix));
  }
  std::string RemoteHostIP() override { return "10.0.0.5"; }
};

class Dispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    t->startup_banner_written = true;
    DetermineLocalIP(*t);
    testing::WriteFile(t.dir.File("TDRegInfo.TXT"), testing::SettingsFile());
    LoadConfiguration(*t);
    mark_ = t.Messages().size();
  }
  std::vector<std::string> NewMessages() {
    auto all = t.Messages();
    std::vector<std::string> out(all.begin() + static_cast<long>(mark_), all.end());
    mark_ = all.size();
    return out;
  }
  testing::TestAgent t;
  Collected c;
  size_t mark_ = 0;
};

TEST_F(Dispatch, EachKeywordReachesItsCommand) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"|SETEXT|1;", "|SETEXT|<Extension>1;"},
      {"|SETSERVER|s;", "|SETSERVER|<TD Server>s;"},
      {"|SETNOTIFY|n;", "|SETNOTIFY|<Notification Method>n;"},
      {"|SETPOP4EXT|e;", "|SETPOP4EXT|<Pop4Ext>e;"},
      {"|SETPOP4WIN|w;", "|SETPOP4WIN|<Pop4Win>w;"},
      {"|SETALL||EXT|2;", "|SETALL|<Extension>2;"},
  };
  for (const auto& [request, reply] : cases) {
    c.replies.clear();
    DispatchCommand(*t, request, c);
    ASSERT_EQ(c.replies.size(), 1u) << request;
    EXPECT_EQ(c.replies[0].first, reply);
    EXPECT_EQ(c.replies[0].second, "Cannot send response - AgentExplorer (IP = ");
  }
}

TEST_F(Dispatch, EarlierKeywordsWinWhereverTheyStand) {
  // GETINFO before every SET, the single SETs in their order, all of them before SETALL.
  DispatchCommand(*t, "|SETPOP4WIN|w;|SETPOP4EXT|e;|SETEXT|9;", c);
  ASSERT_EQ(c.replies.size(), 1u);
  EXPECT_EQ(c.replies[0].first, "|SETEXT|<Extension>9;");
  c.replies.clear();
  DispatchCommand(*t, "|SETALL||EXT|3;|SETNOTIFY|m;|SETSERVER|q;", c);
  ASSERT_EQ(c.replies.size(), 1u);
  EXPECT_EQ(c.replies[0].first, "|SETSERVER|<TD Server>q;");
  c.replies.clear();
  DispatchCommand(*t, "|SETLISTEN|;|SETPOP4EXT|e;|SETNOTIFY|;", c);
  ASSERT_EQ(c.replies.size(), 1u);
  EXPECT_EQ(c.replies[0].first, "|SETNOTIFY|<Notification Method>Failed;");
  c.replies.clear();
  DispatchCommand(*t, "|LOGIN||GETVER||GETTRACEFILE||SETALL||EXT|;", c);
  ASSERT_EQ(c.replies.size(), 1u);
  EXPECT_EQ(c.replies[0].first, "|SETALL|<Extension>Failed;");
}

TEST_F(Dispatch, TextWithoutKeywordIsDroppedWithoutReplyOrLogLine) {
  for (const char* text : {"", "hello", "|GETINFO", "GETINFO|", "|getinfo|", "|SETALL|EXT|1;", "|SETALL||ext|1;"}) {
    DispatchCommand(*t, text, c);
    EXPECT_TRUE(c.replies.empty()) << text;
  }
  EXPECT_TRUE(NewMessages().empty());
  EXPECT_TRUE(listener::ListenerOf(*t).PendingProtocolData.empty());
}

}  // namespace
}  // namespace tdacli::listener
