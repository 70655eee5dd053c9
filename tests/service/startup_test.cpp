#include <gtest/gtest.h>

#include "common/logging.h"
#include "service/lifecycle.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::TestAgent;

TEST(Startup, ServiceRunWritesBannerAfterLoadTimer) {
  TestAgent t;
  t->settings.ListeningPorts = "w,x,y,z";
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");  // port 0: any free port
  Form_Load(*t);
  AttachServiceHost(*t, true);
  ASSERT_TRUE(t.service_host.events.on_start);
  t.service_host.events.on_start();
  t->loop().RunFor(1500);
  EXPECT_EQ(t.service_host.running_reports, 1);
  auto msgs = t.Messages();
  ASSERT_GE(msgs.size(), 6u);
  EXPECT_EQ(msgs[0], "Trace in TDACLI: *************");
  EXPECT_EQ(msgs[1], "Trace in TDACLI: *  STARTUP  *");
  EXPECT_EQ(msgs[2], "Trace in TDACLI: *************");
  EXPECT_EQ(msgs[3], "Trace in TDACLI: Set Local IP to: 192.168.5.20");
  EXPECT_EQ(msgs[4], "Trace in TDACLI: Form_Load Invoked");
}

}  // namespace
}  // namespace tdacli
