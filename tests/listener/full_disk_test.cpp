// The configuration commands on a full disk: the settings file stays as it was, every SET answers with
// the value kept, the errors reach the event log (the trace cannot take them), and once there is
// space again the next save works.
#include <gtest/gtest.h>

#include "listener/console.h"
#include "support/fault_file_system.h"

namespace tdacli {
namespace {

using testing::Console;
using testing::FaultFileSystem;
using testing::SettingsFile;

struct FullDisk : testing::ListeningAgent {
  void SetUp() override {
    ListeningAgent::SetUp();
    files.FullEverywhere();
    t->file_system = &files;
    before = testing::ReadFile(ConfigFile());
    trace_before = testing::ReadFile(t.ProgramTrace());
  }
  std::vector<std::pair<int, std::string>> Errors() const {
    std::vector<std::pair<int, std::string>> out;
    for (const auto& e : t.event_log.entries)
      if (e.first == 1) out.push_back(e);
    return out;
  }
  FaultFileSystem files;
  std::string before, trace_before;
};

TEST_F(FullDisk, SetExtAnswersWithTheKeptValueAndTheFileStaysWhole) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send("|SETEXT|4711;");
  EXPECT_EQ(a.Reply(), "|SETEXT|<Extension>1234;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), before);
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
  EXPECT_EQ(Errors(), (std::vector<std::pair<int, std::string>>{{1, "Error saving settings: Disk full"}}));
  EXPECT_EQ(testing::ReadFile(t.ProgramTrace()), trace_before);  // its lines are lost, nothing else
  EXPECT_EQ(t->settings.Ext, "1234");

  files.SpaceBack();
  a.Send("|SETEXT|4711;");
  EXPECT_EQ(a.Reply(), "|SETEXT|<Extension>4711;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile("4711"));
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received SETEXT command from Agent Explorer.",
                                                     "Trace in TDACLI: Wrote Login Settings to config file"}));
}

TEST_F(FullDisk, SetAllAnswersWithEveryKeptValue) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send("|SETALL||EXT|4711;|SERVER|10.1.1.9;|POP4WIN|x;");
  EXPECT_EQ(a.Reply(), "|SETALL|<Extension>1234;|SETSERVER|<TD Server>127.0.0.1;|SETPOP4WIN|<Pop4Win>false;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), before);
  // SETALL saves the pop-up flag again unchanged: the file already holds those bytes, so that save
  // needs no room and succeeds; the two others fail.
  EXPECT_EQ(Errors(), (std::vector<std::pair<int, std::string>>{{1, "Error saving settings: Disk full"},
                                                                  {1, "Error saving settings: Disk full"}}));
  files.SpaceBack();
  a.Send("|SETALL||EXT|4711;|SERVER|10.1.1.9;");
  EXPECT_EQ(a.Reply(), "|SETALL|<Extension>4711;|SETSERVER|<TD Server>10.1.1.9;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile("4711", "10.1.1.9"));
}

TEST_F(FullDisk, SetListenKeepsTheListenerWhereItIs) {
  const uint16_t port = Port();
  Console a(*t);
  ASSERT_EQ(a.Connect(port), "|READY|");
  a.Send("|SETLISTEN|5001,0,6001,6002;");
  EXPECT_EQ(a.Reply(), "|SETLISTEN|<Listening Ports>1,0,2,3;");
  EXPECT_EQ(Port(), port);
  EXPECT_EQ(testing::ReadFile(ConfigFile()), before);
  EXPECT_TRUE(t.service_control.sent.empty());
  a.Send("|GETINFO|");
  EXPECT_NE(a.Reply().find("<Extension>1234;<TD Server>127.0.0.1;"), std::string::npos);
}

}  // namespace
}  // namespace tdacli
