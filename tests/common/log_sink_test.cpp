// Logging needs no agent: a sink that holds a folder, a name, a switch, a user, a clock and an event
// log is enough, and it asks for the local IP only when a file name needs it.
#include <gtest/gtest.h>

#include "common/logging.h"
#include "platform/clock.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::FakeEventLog;
using testing::ReadFile;
using testing::TempDir;

class BareSink final : public LogSink {
 public:
  explicit BareSink(const TempDir& dir) { app_folder = dir.path() + kSepStr; }
  const std::string& ProgramName() const override { return name; }
  bool TraceOn() const override { return trace; }
  const std::string& CurrentUserName() const override { return user; }
  platform::LocalTime Now() const override { return {2026, 1, 2, 13, 4, 5}; }
  platform::EventLog& event_log() override { return log; }
  bool Ended() const override { return false; }
  void EnsureLocalIP() override {
    ++ip_asked;
    if (local_ip.empty()) local_ip = "10.9.8.7";
  }
  std::string name = "probe";
  bool trace = false;
  std::string user = "N/A";
  FakeEventLog log;
  int ip_asked = 0;
};

TEST(LogSink, ASinkWithoutAnAgentWritesTheSameFilesAndEventLogEntries) {
  TempDir dir;
  BareSink sink(dir);
  LogMessage(sink, "first", "Trace");
  LogMessage(sink, "broken", "Error");
  EXPECT_EQ(ReadFile(dir.File("10-9-8-7-PROBE-TraceFile.TXT")),
            "2026-01-02 01:04:05 PM  -  Trace in PROBE: *************\r\n"
            "2026-01-02 01:04:05 PM  -  Trace in PROBE: *  STARTUP  *\r\n"
            "2026-01-02 01:04:05 PM  -  Trace in PROBE: *************\r\n"
            "2026-01-02 01:04:05 PM  -  Trace in PROBE: first\r\n"
            "2026-01-02 01:04:05 PM  -  Error in PROBE: broken\r\n");
  EXPECT_EQ(ReadFile(dir.File("10-9-8-7-TraceFile.TXT")),
            "2026-01-02 01:04:05 PM  -  Trace in probe: first\r\n"
            "2026-01-02 01:04:05 PM  -  Error in probe: broken\r\n");
  EXPECT_EQ(ReadFile(dir.File("10-9-8-7-Error.LOG")), "2026-01-02 01:04:05 PM  - TDACLI - broken\r\n");
  ASSERT_EQ(sink.log.entries.size(), 1u);  // the trace line stays out: the switch is off
  EXPECT_EQ(sink.log.entries[0], std::make_pair(1, std::string("broken")));
  EXPECT_GE(sink.ip_asked, 1);
}

TEST(LogSink, TheTraceSwitchAndTheUserComeFromTheSink) {
  TempDir dir;
  BareSink sink(dir);
  sink.trace = true;
  sink.user = "jdoe";
  LogMessage(sink, "loud", "Trace");
  ASSERT_EQ(sink.log.entries.size(), 1u);
  EXPECT_EQ(sink.log.entries[0], std::make_pair(2, std::string("loud")));
  testing::WriteFile(dir.File("thinterminal.dat"), "");
  LogMessage(sink, "quiet", "Error");  // user-session mode: no event log, and the user's error log
  EXPECT_EQ(sink.log.entries.size(), 1u);
  EXPECT_FALSE(testing::Exists(dir.File("10-9-8-7-jdoe-Error.LOG")));
  EXPECT_EQ(ErrorLogPath(sink), dir.File("10-9-8-7-jdoe-Error.LOG"));
}

}  // namespace
}  // namespace tdacli
