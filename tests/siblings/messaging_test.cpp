#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "common/logging.h"
#include "siblings/notify_new_listening_port.h"
#include "siblings/request_file.h"
#include "support/test_agent.h"


namespace tdacli {
namespace {

using testing::TestAgent;

// Trace messages after the start-up lines and the address line.
std::vector<std::string> Trace(TestAgent& t) {
  std::vector<std::string> out;
  for (const auto& m : t.Messages()) {
    if (m.find("*************") != std::string::npos || m.find("*  STARTUP  *") != std::string::npos ||
        m.find("Set Local IP to: ") != std::string::npos)
      continue;
    out.push_back(m);
  }
  return out;
}

// ---------------------------------------------------------------- request files

TEST(MakeRequestFile, NamedByTheClockHoldingOneLine) {
  TestAgent t;
  MakeRequestFile(*t, "TDACSC", "Code=135");
  const std::string path = t.dir.File("20261114231502.TDACSC");
  EXPECT_EQ(testing::ReadFile(path), "Code=135\r\n");
  EXPECT_EQ(Trace(t), std::vector<std::string>{"Trace in TDACLI: Made request file (" + path + "), Message=Code=135"});
}

TEST(MakeRequestFile, SameTargetWithinOneSecondReplacesTheFirst) {
  TestAgent t;
  MakeRequestFile(*t, "TDACMT", "Code=130");
  t.clock.AdvanceBy(999);
  MakeRequestFile(*t, "TDACMT", "Code=131");
  EXPECT_EQ(testing::ReadFile(t.dir.File("20261114231502.TDACMT")), "Code=131\r\n");
  t.clock.AdvanceBy(1);
  MakeRequestFile(*t, "TDACMT", "Code=140");
  EXPECT_EQ(testing::ReadFile(t.dir.File("20261114231503.TDACMT")), "Code=140\r\n");
  EXPECT_EQ(testing::ReadFile(t.dir.File("20261114231502.TDACMT")), "Code=131\r\n");
}

TEST(MakeRequestFile, TwoTargetsInOneSecondGiveTwoFiles) {
  TestAgent t;
  MakeRequestFile(*t, "TDACSC", "Code=135");
  MakeRequestFile(*t, "TDACLM", "Code=135");
  EXPECT_TRUE(testing::Exists(t.dir.File("20261114231502.TDACSC")));
  EXPECT_TRUE(testing::Exists(t.dir.File("20261114231502.TDACLM")));
}

TEST(MakeRequestFile, FailureIsLoggedAndSwallowed) {
  TestAgent t;
  const std::string path = t.dir.File("20261114231502.TDACSC");
  std::filesystem::create_directory(path);  // a folder in the file's place cannot be opened as a file
  MakeRequestFile(*t, "TDACSC", "Code=135");
  const std::string msg = "Error creating message request file (" + path +
                          "), MESSAGE=Code=135, ERROR=75, DESC=Path/File access error";
  EXPECT_EQ(Trace(t), std::vector<std::string>{"Error in TDACLI: " + msg});
  ASSERT_EQ(t.event_log.entries.size(), 1u);
  EXPECT_EQ(t.event_log.entries[0], std::make_pair(1, msg));
}

// ---------------------------------------------------------------- new listening port

TEST(NotifyNewListeningPort, UnknownWindowsVersionSendsControlCodes) {
  TestAgent t;
  t->os_code = 99;
  NotifyNewListeningPort(*t);
  ASSERT_EQ(t.service_control.sent.size(), 2u);
  EXPECT_EQ(t.service_control.sent[0], std::make_pair(std::string("TDACSC"), 135));
  EXPECT_EQ(t.service_control.sent[1], std::make_pair(std::string("TDACLM"), 135));
  EXPECT_EQ(Trace(t), (std::vector<std::string>{
                          "Trace in TDACLI: Contacting the TD Agent Client Screen Capture Service for New Listening Port",
                          "Trace in TDACLI: Contacting the TD Agent Client Live Monitor Service for New Listening Port",
                      }));
  EXPECT_FALSE(testing::Exists(t.dir.File("20261114231502.TDACSC")));
}

TEST(NotifyNewListeningPort, OlderWindowsSendsControlCodes) {
  for (int code : {50, 51, 52}) {
    TestAgent t;
    t->os_code = code;
    NotifyNewListeningPort(*t);
    EXPECT_EQ(t.service_control.sent.size(), 2u) << code;
  }
}

TEST(NotifyNewListeningPort, FailedControlRequestsAreLoggedWithTheirNumber) {
  TestAgent t;
  t->os_code = 51;
  t.service_control.results["TDACSC"] = 1060;
  t.service_control.results["TDACLM"] = 1062;
  NotifyNewListeningPort(*t);
  EXPECT_EQ(Trace(t), (std::vector<std::string>{
                          "Trace in TDACLI: Contacting the TD Agent Client Screen Capture Service for New Listening Port",
                          "Error in TDACLI: Error Sending Message to TDACSC: 1060",
                          "Trace in TDACLI: Contacting the TD Agent Client Live Monitor Service for New Listening Port",
                          "Error in TDACLI: Error Sending Message to TDACLM: 1062",
                      }));
  ASSERT_EQ(t.event_log.entries.size(), 2u);
  EXPECT_EQ(t.event_log.entries[0], std::make_pair(1, std::string("Error Sending Message to TDACSC: 1060")));
}

TEST(NotifyNewListeningPort, VistaAndLaterWriteRequestFilesAndYieldAfterEach) {
  for (int code : {60, 61, 62, 63, 10}) {
    TestAgent t;
    t->os_code = code;
    // Work queued before the call runs in the yield that follows the first request file.
    t->loop().Post([&] { LogMessage(*t, "queued work ran", "Trace"); });
    NotifyNewListeningPort(*t);
    EXPECT_TRUE(t.service_control.sent.empty()) << code;
    const std::string sc = t.dir.File("20261114231502.TDACSC"), lm = t.dir.File("20261114231502.TDACLM");
    EXPECT_EQ(testing::ReadFile(sc), "Code=135\r\n");
    EXPECT_EQ(testing::ReadFile(lm), "Code=135\r\n");
    EXPECT_EQ(Trace(t), (std::vector<std::string>{
                            "Trace in TDACLI: Made request file (" + sc + "), Message=Code=135",
                            "Trace in TDACLI: queued work ran",
                            "Trace in TDACLI: Sent Message [135] to TDACSC!",
                            "Trace in TDACLI: Made request file (" + lm + "), Message=Code=135",
                            "Trace in TDACLI: Sent Message [135] to TDACLM!",
                        }))
        << code;
  }
}

TEST(NotifyNewListeningPort, EndsWithAYield) {
  TestAgent t;
  t->os_code = 99;
  // Posted while the second message is sent: only the final yield can run it.
  t.service_control.on_send = [&](const std::string& service, int) {
    if (service == "TDACLM") t->loop().Post([&] { LogMessage(*t, "posted during TDACLM", "Trace"); });
  };
  NotifyNewListeningPort(*t);
  auto trace = Trace(t);
  ASSERT_FALSE(trace.empty());
  EXPECT_EQ(trace.back(), "Trace in TDACLI: posted during TDACLM");
}

}  // namespace
}  // namespace tdacli
