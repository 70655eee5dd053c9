#include <gtest/gtest.h>

#include <filesystem>

#include "common/files.h"
#include "service/control.h"
#include "siblings/delivery.h"
#include "siblings/notify_new_listening_port.h"
#include "siblings/request_file.h"
#include "support/test_agent.h"
#include "triggers/logoff.h"
#include "triggers/temp_access.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::TestAgent;
using testing::WriteFile;

struct Delivery : ::testing::Test {
  Delivery() {
    t->local_ip = "192.168.5.20";
    t->startup_banner_written = true;
  }
  // TDACMT answers a code after `delay_ms` of the agent's clock, through the control handler.
  void AnswerWith(int code, int delay_ms) {
    t.service_control.on_send = [this, code, delay_ms](const std::string& service, int sent) {
      if (service != "TDACMT" || sent != 130) return;
      auto timer = std::make_shared<platform::Timer>(t->loop());
      timer->SetInterval(delay_ms);
      // `timers` owns the timer; the handler holds it by plain pointer so that no cycle keeps it alive.
      timer->on_tick = [this, code, raw = timer.get()] {
        raw->SetEnabled(false);
        Service_Control(*t, code);
      };
      timer->SetEnabled(true);
      timers.push_back(timer);
    };
  }
  TestAgent t;
  std::vector<std::shared_ptr<platform::Timer>> timers;
};

TEST_F(Delivery, RuleVByWindowsVersion) {
  for (int code : {60, 61, 62, 63, 10}) {
    t->os_code = code;
    EXPECT_TRUE(RuleVUsesFiles(*t)) << code;
  }
  for (int code : {50, 51, 52, 99}) {
    t->os_code = code;
    EXPECT_FALSE(RuleVUsesFiles(*t)) << code;
  }
}

TEST_F(Delivery, UnknownWindowsVersionSendsControlRequests) {
  t->os_code = 99;
  NotifyNewListeningPort(*t);
  EXPECT_EQ(t.service_control.sent,
            (std::vector<std::pair<std::string, int>>{{"TDACSC", 135}, {"TDACLM", 135}}));
  auto msgs = t.Messages();
  EXPECT_EQ(msgs[0], "Trace in TDACLI: Contacting the TD Agent Client Screen Capture Service for New Listening Port");
  EXPECT_EQ(msgs[1], "Trace in TDACLI: Contacting the TD Agent Client Live Monitor Service for New Listening Port");
}

TEST_F(Delivery, TwoTargetsInOneSecondGetTwoFiles) {
  t->os_code = 10;
  NotifyNewListeningPort(*t);
  EXPECT_TRUE(t.service_control.sent.empty());
  EXPECT_EQ(ReadFile(t.dir.File("20261114231502.TDACSC")), "Code=135\r\n");
  EXPECT_EQ(ReadFile(t.dir.File("20261114231502.TDACLM")), "Code=135\r\n");
  auto msgs = t.Messages();
  EXPECT_EQ(msgs[1], "Trace in TDACLI: Sent Message [135] to TDACSC!");
  EXPECT_EQ(msgs[3], "Trace in TDACLI: Sent Message [135] to TDACLM!");
}

TEST_F(Delivery, TwoMessagesToOneTargetInOneSecondShareTheFile) {
  MakeRequestFile(*t, "TDACMT", "Code=130");
  MakeRequestFile(*t, "TDACMT", "Code=131");
  EXPECT_EQ(ReadFile(t.dir.File("20261114231502.TDACMT")), "Code=131\r\n");
  EXPECT_EQ(t.Messages().back(),
            "Trace in TDACLI: Made request file (" + t.dir.File("20261114231502.TDACMT") + "), Message=Code=131");
}

TEST_F(Delivery, RemoteControlLoadRequestHasADoubledSeparator) {
  RequestRemoteControlLoad(*t);
  // The application folder already ends in a separator and the routine adds another: the path the
  // agent reports is written out here, not built the way the agent builds it.
  ASSERT_EQ(t->app_folder, t.dir.path() + kSepStr);
  const std::string doubled = t.dir.path() + kSepStr + kSepStr + "20261114231502.TDACLD";
  EXPECT_EQ(ReadFile(t.dir.File("20261114231502.TDACLD")), "LOAD=TDACVC\r\n");
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: Made request file (" + doubled + "), Message=LOAD=TDACVC");
}

TEST_F(Delivery, ServerTempCheckTrueOnAnAnswerOf131) {
  AnswerWith(131, 2500);
  const int64_t start = t.clock.NowMs();
  EXPECT_TRUE(RequestServerTempCheck(*t));
  EXPECT_EQ(t.clock.NowMs() - start, 2500);  // the wait ends as soon as the answer is there
  EXPECT_EQ(t.service_control.sent, (std::vector<std::pair<std::string, int>>{{"TDACMT", 130}}));
  EXPECT_EQ(t.Messages()[0], "Trace in TDACLI: Sending message 130 to TDACMT Service");
}

TEST_F(Delivery, AnswerOf132EndsTheWaitAtOnceWithFalse) {
  AnswerWith(132, 300);
  const int64_t start = t.clock.NowMs();
  EXPECT_FALSE(RequestServerTempCheck(*t));
  EXPECT_EQ(t.clock.NowMs() - start, 300);
  EXPECT_EQ(t->media_transfer_reply.value(), 2);
}

TEST_F(Delivery, NoAnswerGivesFalseAfterThirtyOneWaits) {
  const int64_t start = t.clock.NowMs();
  auto real = std::chrono::steady_clock::now();
  EXPECT_FALSE(RequestServerTempCheck(*t));
  EXPECT_EQ(t.clock.NowMs() - start, 31'000);
  EXPECT_LT(std::chrono::steady_clock::now() - real, std::chrono::seconds(3));
}

TEST_F(Delivery, ReplyFlagIsClearedBeforeAsking) {
  t->media_transfer_reply.Resolve(1);  // a stale answer of an earlier request
  EXPECT_FALSE(RequestServerTempCheck(*t));
}

TEST_F(Delivery, SendErrorIsLoggedAndNotAwaited) {
  t.service_control.results["TDACMT"] = 1060;
  const int64_t start = t.clock.NowMs();
  EXPECT_FALSE(RequestServerTempCheck(*t));
  EXPECT_EQ(t.clock.NowMs(), start);
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error Sending Message 130 to TDACMT: 1060");
}

TEST_F(Delivery, UserSessionModeAsksTheMediaTransferByFile) {
  WriteFile(t.dir.File("thinterminal.dat"), "");
  EXPECT_FALSE(RequestServerTempCheck(*t));
  EXPECT_TRUE(t.service_control.sent.empty());
  EXPECT_EQ(ReadFile(t.dir.File("20261114231502.TDACMT")), "Code=130\r\n");
}

TEST_F(Delivery, LoginNoticeToTheMediaTransferFollowsTheRunMode) {
  NotifyMediaTransferLogin(*t);
  EXPECT_EQ(t.service_control.sent, (std::vector<std::pair<std::string, int>>{{"TDACMT", 131}}));
  WriteFile(t.dir.File("thinterminal.dat"), "");
  NotifyMediaTransferLogin(*t);
  EXPECT_EQ(t.service_control.sent.size(), 1u);
  EXPECT_EQ(ReadFile(t.dir.File("20261114231502.TDACMT")), "Code=131\r\n");
}

// --- the temp-folder check

TEST_F(Delivery, TempCheckWithServerTempNotApplicableDoesNothing) {
  t->settings.SvrTemp = "N/A";
  t->temp_access_status = 3;
  EXPECT_EQ(CheckTempFolderAccess(*t), 0);
  EXPECT_EQ(t->temp_access_status, 0);
  EXPECT_TRUE(t.service_control.sent.empty());
  EXPECT_FALSE(Exists(t.ProgramTrace()));
}

TEST_F(Delivery, TempCheckWithBothFoldersWritable) {
  AnswerWith(131, 100);
  t->settings.CurrentUser = "jsmith";
  t->settings.SvrTemp = "\\\\srv\\temp";
  t->settings.LocalTemp = t.dir.File("local") + kSepStr + "cap";  // created on the way
  t->WriteLogin().LastLoginResult = "The Tyndrel Agent Client Successfully Logged in User (jsmith).";
  EXPECT_EQ(CheckTempFolderAccess(*t), 0);
  EXPECT_EQ(t->settings.LocalTemp, t.dir.File("local") + kSepStr + "cap" + kSepStr);
  EXPECT_TRUE(FolderExists(t->settings.LocalTemp));
  EXPECT_EQ(t->login().LastLoginResult,
            "The Tyndrel Agent Client Successfully Logged in User (jsmith).{CRLF}{CRLF}User has proper access to both "
            "temp folders.");
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: User has proper access to both temp folders");
}

TEST_F(Delivery, TempCheckWithNeitherFolderWritable) {
  AnswerWith(132, 100);
  t->settings.SvrTemp = "\\\\srv\\temp";
  t->settings.LocalTemp = t.dir.path() + kSepStr;
  t->refuse_delete = [](const std::string&) { return true; };
  t->WriteLogin().LastLoginResult = "X";
  EXPECT_EQ(CheckTempFolderAccess(*t), 3);
  EXPECT_EQ(t->temp_access_status, 3);
  EXPECT_EQ(t->login().LastLoginResult,
            "X{CRLF}{CRLF}[ERROR]User Can't Write to Local Temp of: " + t->settings.LocalTemp +
                "{CRLF}{CRLF}[ERROR]User Can't Write to Server Temp of: \\\\srv\\temp");
  auto msgs = t.Messages();
  EXPECT_NE(std::find(msgs.begin(), msgs.end(),
                      "Error in TDACLI: TD Agent Client Can't Write to Local Temp of: " + t->settings.LocalTemp),
            msgs.end());
  // Successive checks accumulate.
  CheckTempFolderAccess(*t);
  EXPECT_NE(t->login().LastLoginResult.find("\\\\srv\\temp{CRLF}{CRLF}[ERROR]User Can't Write to Local Temp"),
            std::string::npos);
}

}  // namespace
}  // namespace tdacli
