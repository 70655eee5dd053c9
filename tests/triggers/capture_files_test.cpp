#include "triggers/capture_files.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::TestAgent;
using testing::WriteFile;

struct CaptureFiles : ::testing::Test {
  CaptureFiles() { t->local_ip = "192.168.5.20"; t->startup_banner_written = true; }
  TestAgent t;
};

TEST_F(CaptureFiles, ParamAndKeyFilesHoldOneLineEach) {
  t->WriteLogin().KekInfo = "KEK:abc:123";
  t->WriteLogin().HundredScreensParam = "100:010|AT-LOG:2|010|001";
  Make100ScreensParamFile(*t);
  EXPECT_EQ(ReadFile(t.dir.File("100Screen.KEK")), "KEK:abc:123\r\n");
  EXPECT_EQ(ReadFile(t.dir.File("100ScreenParam.TXT")), "100:010|AT-LOG:2|010|001\r\n");
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[0], "Trace in TDACLI: Made 100% Screen KEK   File (" + t.dir.File("100Screen.KEK") +
                         ") with values (KEK:abc:123)");
  EXPECT_EQ(msgs[1], "Trace in TDACLI: Made 100% Screen Param File (" + t.dir.File("100ScreenParam.TXT") +
                         ") with values (100:010|AT-LOG:2|010|001)");
}

TEST_F(CaptureFiles, KekOfNotApplicableWritesOnlyTheParamFile) {
  for (const char* kek : {"N/A", ""}) {
    t->WriteLogin().KekInfo = kek;
    t->WriteLogin().HundredScreensParam = "NOTSET";
    Make100ScreensParamFile(*t);
    EXPECT_FALSE(Exists(t.dir.File("100Screen.KEK"))) << kek;
    EXPECT_EQ(ReadFile(t.dir.File("100ScreenParam.TXT")), "NOTSET\r\n");
  }
}

TEST_F(CaptureFiles, OlderKeyFileStaysWhenNoKeyArrives) {
  WriteFile(t.dir.File("100Screen.KEK"), "old\r\n");
  t->WriteLogin().KekInfo = "N/A";
  Make100ScreensParamFile(*t);
  EXPECT_EQ(ReadFile(t.dir.File("100Screen.KEK")), "old\r\n");
}

TEST_F(CaptureFiles, WebCamTriggerIsWrittenOnceAndLeftUntouched) {
  t->WriteLogin().UseWebCam = true;
  HandleWebCamTrigger(*t);
  EXPECT_EQ(ReadFile(t.dir.File("UseWebCam.TXT")), "WEBCAM=True\r\n");
  WriteFile(t.dir.File("UseWebCam.TXT"), "edited by the capture program\r\n");
  HandleWebCamTrigger(*t);
  HandleWebCamTrigger(*t);
  EXPECT_EQ(ReadFile(t.dir.File("UseWebCam.TXT")), "edited by the capture program\r\n");
  EXPECT_EQ(t.Messages().back(),
            "Trace in TDACLI: WebCam Enabled, Making Trigger File (" + t.dir.File("UseWebCam.TXT") + ")");
}

TEST_F(CaptureFiles, WebCamOffRemovesTheTrigger) {
  WriteFile(t.dir.File("UseWebCam.TXT"), "WEBCAM=True\r\n");
  t->WriteLogin().UseWebCam = false;
  HandleWebCamTrigger(*t);
  EXPECT_FALSE(Exists(t.dir.File("UseWebCam.TXT")));
  EXPECT_EQ(t.Messages().back(),
            "Trace in TDACLI: WebCam Disabled, Deleting Trigger File (" + t.dir.File("UseWebCam.TXT") + ")");
}

TEST_F(CaptureFiles, ScreenParamsDefaultWithoutAFile) {
  LoadScreenParams(*t);
  EXPECT_EQ(t->screen().line, "NOTSET");
  EXPECT_EQ(t->screen().first_number, 10);
  EXPECT_EQ(t->screen().schedule, "02:00 AM");
  EXPECT_EQ(t->screen().max_age_days, 4);
  EXPECT_EQ(t->screen().second_number, 10);
  EXPECT_EQ(t->screen().third_number, 1);
}

TEST_F(CaptureFiles, ScreenParamsReadAllFields) {
  WriteFile(t.dir.File("100ScreenParam.TXT"), "\r\nSCR:025|ATLOGO:3|030|005\r\nnext\r\n");
  LoadScreenParams(*t);
  EXPECT_EQ(t->screen().line, "SCR:025|ATLOGO:3|030|005");
  EXPECT_EQ(t->screen().first_number, 25);
  EXPECT_EQ(t->screen().schedule, "ATLOGOUT");
  EXPECT_EQ(t->screen().max_age_days, 3);
  EXPECT_EQ(t->screen().second_number, 30);
  EXPECT_EQ(t->screen().third_number, 5);
}

TEST(ScreenParamLine, ScheduleFieldForms) {
  ScreenParams p;
  ParseScreenParamLine("SCR:025|AT-LOG:2|030|005", p);
  EXPECT_EQ(p.schedule, "AT-LOGIN");
  EXPECT_EQ(p.max_age_days, 2);
  ParseScreenParamLine("SCR:025|ATLOGO:3|030|005", p);
  EXPECT_EQ(p.schedule, "ATLOGOUT");
  EXPECT_EQ(p.max_age_days, 3);
  ParseScreenParamLine("SCR:025|02:00 AM|030|005", p);
  EXPECT_EQ(p.schedule, "02:00 AM");
  EXPECT_EQ(p.max_age_days, 4);
  ParseScreenParamLine("SCR:025|23:30 :6|030|005", p);
  EXPECT_EQ(p.schedule, "23:30");
  EXPECT_EQ(p.max_age_days, 6);
}

TEST(ScreenParamLine, ScheduleFieldWhoseDigitIsNoNumberLeavesTheScheduleAlone) {
  ScreenParams p;
  ParseScreenParamLine("SCR:010|ATLOGO:x|010|001", p);
  EXPECT_EQ(p.line, "SCR:010|ATLOGO:x|010|001");
  EXPECT_EQ(p.first_number, 10);
  EXPECT_EQ(p.schedule, "02:00 AM");
  EXPECT_EQ(p.max_age_days, 4);
  EXPECT_EQ(p.second_number, 10);
  EXPECT_EQ(p.third_number, 1);
  ParseScreenParamLine("SCR:025|AT-LOG: |030|005", p);
  EXPECT_EQ(p.first_number, 25);
  EXPECT_EQ(p.schedule, "02:00 AM");
  EXPECT_EQ(p.second_number, 10);
}

TEST(ScreenParamLine, ShortLineKeepsEveryDefault) {
  ScreenParams p;
  ParseScreenParamLine("SCR:02", p);
  EXPECT_EQ(p.line, "SCR:02");
  EXPECT_EQ(p.first_number, 10);
  EXPECT_EQ(p.schedule, "02:00 AM");
  EXPECT_EQ(p.max_age_days, 4);
}

TEST(ScreenParamLine, NonNumberEndsParsingKeepingWhatWasSet) {
  ScreenParams p;
  ParseScreenParamLine("SCR:025|ATLOGO:3|abc|005", p);
  EXPECT_EQ(p.first_number, 25);
  EXPECT_EQ(p.schedule, "ATLOGOUT");
  EXPECT_EQ(p.second_number, 10);
  EXPECT_EQ(p.third_number, 1);
}

TEST_F(CaptureFiles, SendFramesWritesTheRequestAsReceived) {
  const std::string req = "|SENDFRAMES|10.1.1.1@20261114@Job42@frames";
  SendFrames(*t, req);
  const std::string path = t.dir.File("SendFrames-Job42.TSF");
  EXPECT_EQ(ReadFile(path), req + "\r\n");
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: Made 'Send Frames' File (" + path + ") with values (" + req + ")");
}

TEST_F(CaptureFiles, SendFramesRequestWithALineBreakIsCutAtIt) {
  SendFrames(*t, "|SENDFRAMES|10.1.1.1@20261114@Job43@frames\r\nPlanted=1");
  const std::string path = t.dir.File("SendFrames-Job43.TSF");
  EXPECT_EQ(ReadFile(path), "|SENDFRAMES|10.1.1.1@20261114@Job43@frames\r\n");
  const auto lines = t.Messages();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], "Warning in TDACLI: The value of (SendFrames) held a line break and was cut at it.");
  EXPECT_EQ(lines.back(), "Trace in TDACLI: Made 'Send Frames' File (" + path +
                              ") with values (|SENDFRAMES|10.1.1.1@20261114@Job43@frames)");
}

TEST_F(CaptureFiles, SendFramesWithoutJobNameUsesTheTimeAndSameSecondReplaces) {
  SendFrames(*t, "|SENDFRAMES|a@b");
  SendFrames(*t, "|SENDFRAMES|c@d");
  EXPECT_EQ(ReadFile(t.dir.File("SendFrames-20261114231502.TSF")), "|SENDFRAMES|c@d\r\n");
}

TEST_F(CaptureFiles, JobNameThatIsNotAFileNameFailsWithoutWritingElsewhere) {
  std::filesystem::create_directory(t.dir.File("sub"));
  for (const std::string& name : std::vector<std::string>{"sub/x", "sub\\x", "../escape", "..\\escape", "C:x",
                                                          std::string("a\0b", 3), "a\x01" "b", "a\x1f" "b", "a\x7f" "b"}) {
    const std::string req = "|SENDFRAMES|a@b@" + name + "@c";
    SendFrames(*t, req);
    EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error saving 'Send Frames' info to file (" +
                                       t.dir.File(std::string("SendFrames-") + name + ".TSF") +
                                       ") - 52, Bad file name or number")
        << name;
  }
  EXPECT_TRUE(std::filesystem::is_empty(t.dir.File("sub")));
  int tsf = 0;
  for (auto& e : std::filesystem::directory_iterator(t.dir.path()))
    tsf += e.path().extension() == ".TSF";
  EXPECT_EQ(tsf, 0);
}

TEST_F(CaptureFiles, GrabberTaskCutsTheJobNameAtTheBar) {
  SendFramesForGrabberTask(*t, "10.1.1.1@x@Job7|extra@y");
  EXPECT_EQ(ReadFile(t.dir.File("SendFrames-Job7.TSF")), "10.1.1.1@x@Job7|extra@y\r\n");
  // The console-driven routine keeps the bar, which no file name may hold.
  SendFrames(*t, "|SENDFRAMES|10.1.1.1@x@Job8|extra@y");
  EXPECT_FALSE(Exists(t.dir.File("SendFrames-Job8.TSF")));
}

TEST_F(CaptureFiles, JobNamesOfOnlyDotsAreHarmlessFileNames) {
  for (const std::string& name : {std::string("."), std::string(".."), std::string("...")}) {
    const std::string req = "|SENDFRAMES|a@b@" + name + "@c";
    SendFrames(*t, req);
    const std::string path = t.dir.File("SendFrames-" + name + ".TSF");
    EXPECT_EQ(ReadFile(path), req + "\r\n") << name;
    EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: Made 'Send Frames' File (" + path + ") with values (" + req + ")");
  }
  EXPECT_EQ(ReadFile(t.dir.File("SendFrames-...TSF")), "|SENDFRAMES|a@b@..@c\r\n");
  SendFramesForGrabberTask(*t, "10.1.1.1@x@...@y");
  EXPECT_EQ(ReadFile(t.dir.File("SendFrames-....TSF")), "10.1.1.1@x@...@y\r\n");
}

TEST_F(CaptureFiles, GrabberTaskWithNothingBeforeTheBarWritesTheEmptyJobName) {
  SendFramesForGrabberTask(*t, "10.1.1.1@x@|extra@y");
  const std::string path = t.dir.File("SendFrames-.TSF");
  EXPECT_EQ(ReadFile(path), "10.1.1.1@x@|extra@y\r\n");
  EXPECT_EQ(t.Messages().back(),
            "Trace in TDACLI: Made 'Send Frames' File (" + path + ") with values (10.1.1.1@x@|extra@y)");
  // Separators and drives stay refused after the cut.
  SendFramesForGrabberTask(*t, "10.1.1.1@x@../up|extra@y");
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error saving 'Send Frames' info to file (" +
                                     t.dir.File("SendFrames-../up.TSF") + ") - 52, Bad file name or number");
}

TEST(SendFramesJob, NameIsTheThirdField) {
  EXPECT_EQ(SendFramesJobName("|SENDFRAMES|a@b@c@d"), "c");
  EXPECT_EQ(SendFramesJobName("a@b@c"), "c");
  EXPECT_EQ(SendFramesJobName("|SENDFRAMES|a@b"), "");
  EXPECT_EQ(SendFramesJobName("|SENDFRAMES|"), "");
}

}  // namespace
}  // namespace tdacli
