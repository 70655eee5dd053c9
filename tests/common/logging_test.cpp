#include "common/logging.h"

#include <gtest/gtest.h>

#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::Lines;
using testing::ReadFile;
using testing::TestAgent;
using testing::WriteFile;

// The agent's local IP is known, so no "Set Local IP" line interferes.
struct LogTest : ::testing::Test {
  LogTest() { t->local_ip = "192.168.5.20"; }
  TestAgent t;
};

TEST_F(LogTest, FirstLineOfARunGetsTheStartupBannerInTheProgramTraceOnly) {
  LogMessage(*t, "hello", "Trace");
  LogMessage(*t, "again", "Trace");
  EXPECT_EQ(ReadFile(t.ProgramTrace()),
            "2026-11-14 11:15:02 PM  -  Trace in TDACLI: *************\r\n"
            "2026-11-14 11:15:02 PM  -  Trace in TDACLI: *  STARTUP  *\r\n"
            "2026-11-14 11:15:02 PM  -  Trace in TDACLI: *************\r\n"
            "2026-11-14 11:15:02 PM  -  Trace in TDACLI: hello\r\n"
            "2026-11-14 11:15:02 PM  -  Trace in TDACLI: again\r\n");
  EXPECT_EQ(ReadFile(t.HostTrace()),
            "2026-11-14 11:15:02 PM  -  Trace in tdacli: hello\r\n"
            "2026-11-14 11:15:02 PM  -  Trace in tdacli: again\r\n");
}

TEST_F(LogTest, BannerTakesTheCategoryOfTheFirstLine) {
  WriteProgramTrace(*t, "x", "Information");
  EXPECT_EQ(Lines(t.ProgramTrace())[1], "2026-11-14 11:15:02 PM  -  Information in TDACLI: *  STARTUP  *");
}

TEST_F(LogTest, StampUsesTwelveHourClockWithMarker) {
  testing::TestAgent morning({2026, 3, 5, 0, 7, 9});
  morning->local_ip = "10.0.0.1";
  morning->startup_banner_written = true;
  LogMessage(*morning, "m", "Trace");
  EXPECT_EQ(ReadFile(morning.dir.File("10-0-0-1-TraceFile.TXT")), "2026-03-05 12:07:09 AM  -  Trace in tdacli: m\r\n");
}

TEST_F(LogTest, TraceLinesStayOutOfTheEventLogUnlessUseTraceIsExactlyTrue) {
  t->settings.UseTrace = "true";
  LogMessage(*t, "lower", "Trace");
  EXPECT_TRUE(t.event_log.entries.empty());
  t->settings.UseTrace = "True";
  LogMessage(*t, "upper", "Trace");
  ASSERT_EQ(t.event_log.entries.size(), 1u);
  EXPECT_EQ(t.event_log.entries[0], std::make_pair(2, std::string("upper")));  // a trace is a warning
}

TEST_F(LogTest, ErrorInServiceModeReachesTracesEventLogAndErrorLog) {
  t->startup_banner_written = true;
  LogMessage(*t, "it broke", "Error");
  EXPECT_EQ(Lines(t.ProgramTrace()), std::vector<std::string>{"2026-11-14 11:15:02 PM  -  Error in TDACLI: it broke"});
  EXPECT_EQ(Lines(t.HostTrace()), std::vector<std::string>{"2026-11-14 11:15:02 PM  -  Error in tdacli: it broke"});
  ASSERT_EQ(t.event_log.entries.size(), 1u);
  EXPECT_EQ(t.event_log.entries[0], std::make_pair(1, std::string("it broke")));
  EXPECT_EQ(ReadFile(t.ErrorLog()), "2026-11-14 11:15:02 PM  - TDACLI - it broke\r\n");
}

TEST_F(LogTest, EventLogTypesPerCategory) {
  LogMessage(*t, "w", "Warning");
  LogMessage(*t, "i", "Information");
  LogMessage(*t, "t", "Trace");  // UseTrace "False": not in the event log
  LogMessage(*t, "w!", "Warning!");
  LogMessage(*t, "t!", "Trace!");
  LogMessage(*t, "o", "Other");
  EXPECT_EQ(t.event_log.entries, (std::vector<std::pair<int, std::string>>{{2, "w"}, {4, "i"}}));
  EXPECT_FALSE(Exists(t.ErrorLog()));
  auto msgs = t.Messages();
  EXPECT_EQ(msgs.back(), "Other in TDACLI: o");
  EXPECT_EQ(msgs[msgs.size() - 2], "Trace! in TDACLI: t!");
}

TEST_F(LogTest, WarningBangInServiceModeGoesToTheTraceFilesOnly) {
  LogMessage(*t, "careful", "Warning!");
  EXPECT_TRUE(t.event_log.entries.empty());
  EXPECT_FALSE(Exists(t.ErrorLog()));
  EXPECT_EQ(Lines(t.HostTrace()), std::vector<std::string>{"2026-11-14 11:15:02 PM  -  Warning! in tdacli: careful"});
}

TEST_F(LogTest, UserSessionModeWritesNoEventLogAndNoErrorLog) {
  WriteFile(t.dir.File("thinterminal.dat"), "");
  LogMessage(*t, "bad", "Error");
  LogMessage(*t, "info", "Information");
  EXPECT_TRUE(t.event_log.entries.empty());
  EXPECT_FALSE(Exists(t.ErrorLog()));
  EXPECT_FALSE(Exists(t.dir.File("192-168-5-20-N/A-Error.LOG")));
  EXPECT_EQ(t.Messages().back(), "Information in TDACLI: info");
}

TEST_F(LogTest, UserSessionErrorLogIsPerUser) {
  WriteFile(t.dir.File("thinterminal.dat"), "");
  t->settings.CurrentUser = "jsmith";
  WriteErrorLog(*t, "TDACLI", "per user");
  EXPECT_EQ(ReadFile(t.dir.File("192-168-5-20-jsmith-Error.LOG")), "2026-11-14 11:15:02 PM  - TDACLI - per user\r\n");
}

TEST_F(LogTest, RootMarkerSuppressesTheEventLogOnly) {
  WriteFile(t.dir.File("thinterminal.root"), "");
  LogMessage(*t, "bad", "Error");
  EXPECT_TRUE(t.event_log.entries.empty());
  EXPECT_FALSE(Exists(t.ErrorLog()));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: bad");
}

TEST_F(LogTest, LogFileNameUsesTheLocalIpWithDashes) {
  TestAgent fresh;  // local IP not determined yet: the first line determines it
  LogMessage(*fresh, "first", "Trace");
  EXPECT_TRUE(Exists(fresh.dir.File("192-168-5-20-TDACLI-TraceFile.TXT")));
  EXPECT_EQ(fresh.Messages().back(), "Trace in TDACLI: first");
  EXPECT_EQ(fresh.Messages()[3], "Trace in TDACLI: Set Local IP to: 192.168.5.20");
}

// The size rule, for each of the three kinds of log (0 program trace, 1 host trace, 2 error log).
class LogSizeTest : public ::testing::TestWithParam<int> {};

std::string FileFor(TestAgent& t, int kind) {
  return kind == 0 ? t.ProgramTrace() : kind == 1 ? t.HostTrace() : t.ErrorLog();
}
std::string LineFor(int kind) {
  return kind == 0   ? "2026-11-14 11:15:02 PM  -  Error in TDACLI: limit\r\n"
         : kind == 1 ? "2026-11-14 11:15:02 PM  -  Error in tdacli: limit\r\n"
                     : "2026-11-14 11:15:02 PM  - TDACLI - limit\r\n";
}

TEST_P(LogSizeTest, FileOfExactlyTheLimitIsKept) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->startup_banner_written = true;
  const int kind = GetParam();
  const std::string line = LineFor(kind);
  WriteFile(FileFor(t, kind), std::string(static_cast<size_t>(kLogSizeLimit) - line.size(), 'x'));
  LogMessage(*t, "limit", "Error");
  std::string content = ReadFile(FileFor(t, kind));
  EXPECT_EQ(content.size(), static_cast<size_t>(kLogSizeLimit));
  EXPECT_EQ(content.substr(content.size() - line.size()), line);
}

TEST_P(LogSizeTest, FileOneBytePastTheLimitIsRestartedWithTwoLines) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->startup_banner_written = true;
  const int kind = GetParam();
  const std::string line = LineFor(kind);
  WriteFile(FileFor(t, kind), std::string(static_cast<size_t>(kLogSizeLimit) - line.size() + 1, 'x'));
  LogMessage(*t, "limit", "Error");
  EXPECT_EQ(ReadFile(FileFor(t, kind)), "Log Initialized, It Was Greater than 5 MEG!\r\n" + line);
}

INSTANTIATE_TEST_SUITE_P(ProgramHostAndErrorLog, LogSizeTest, ::testing::Values(0, 1, 2));

TEST_F(LogTest, NothingIsWrittenAfterTheProcessEnded) {
  t->EndProcess();
  LogMessage(*t, "late", "Error");
  EXPECT_FALSE(Exists(t.ProgramTrace()));
  EXPECT_TRUE(t.event_log.entries.empty());
}

TEST_F(LogTest, UnwritableFolderLosesTheLineSilently) {
  TestAgent gone;
  gone->local_ip = "1.2.3.4";
  std::string missing = gone.dir.File("no-such-folder");
  AgentOptions o;
  o.exe_folder = missing;
  Agent a({gone.clock, gone.host, gone.event_log, gone.service_control, gone.dialogs, gone.service_host, gone.http, gone.internet}, o);
  a.local_ip = "1.2.3.4";
  LogMessage(a, "lost", "Error");  // must not throw
  EXPECT_FALSE(Exists(missing));
  EXPECT_EQ(gone.event_log.entries.size(), 1u);
}

TEST_F(LogTest, AMessageLongerThanSixtyFourKibibytesIsCutWithItsLength) {
  t->settings.UseTrace = "True";
  const std::string huge = std::string(70000, 'q') + "TAIL";
  LogMessage(*t, huge, "Error");
  const std::string expected = std::string(65536, 'q') + " ... (70004 bytes)";
  auto msgs = t.Messages();
  ASSERT_FALSE(msgs.empty());
  EXPECT_TRUE(msgs.back() == "Error in TDACLI: " + expected) << msgs.back().size();
  const auto errors = Lines(t.ErrorLog());
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].size(), 22 + 4 + 6 + 3 + expected.size());
  EXPECT_EQ(errors[0].substr(errors[0].size() - 18), " ... (70004 bytes)");
  ASSERT_EQ(t.event_log.entries.size(), 1u);
  EXPECT_TRUE(t.event_log.entries[0].second == expected);
  // A message of exactly the limit is left whole.
  LogMessage(*t, std::string(65536, 'r'), "Trace");
  EXPECT_TRUE(t.Messages().back() == "Trace in TDACLI: " + std::string(65536, 'r'));
}

TEST_F(LogTest, HugeLinesCannotPushTheTraceThroughItsRollOver) {
  // Sixty lines of a megabyte each would be 60 MB; cut, they stay far below the 5 MB roll-over.
  for (int i = 0; i < 60; ++i) LogMessage(*t, std::string(1 << 20, 'h'), "Trace");
  const std::string trace = ReadFile(t.ProgramTrace());
  EXPECT_EQ(trace.find("Log Initialized"), std::string::npos);
  EXPECT_LT(trace.size(), 5'000'000u);
}

TEST_F(LogTest, ValuesAreCutAtTheirFirstLineBreakWithOneWarning) {
  std::string v = "abc\r\nKEY=planted";
  CutAtLineBreak(*t, v, "IPMask");
  EXPECT_EQ(v, "abc");
  v = "x\ny\rz";
  CutAtLineBreak(*t, v, "Ext");
  EXPECT_EQ(v, "x");
  v = "clean";
  CutAtLineBreak(*t, v, "Server");
  EXPECT_EQ(v, "clean");
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 5u);  // the start-up banner's three lines, then the two warnings
  EXPECT_EQ(msgs[3], "Warning in TDACLI: The value of (IPMask) held a line break and was cut at it.");
  EXPECT_EQ(msgs[4], "Warning in TDACLI: The value of (Ext) held a line break and was cut at it.");
}

}  // namespace
}  // namespace tdacli
