// The configuration commands over real loopback connections: exact replies, exact trace lines and the
// settings file byte for byte after each SET.
#include <gtest/gtest.h>

#include <filesystem>

#include "listener/console.h"

namespace tdacli {
namespace {

using platform::TcpSocket;
using testing::Console;
using testing::ListeningAgent;
using testing::SettingsFile;

class ConfigCommands : public ListeningAgent {
 protected:
  void SetUp() override {
    ListeningAgent::SetUp();
    original_ = testing::ReadFile(ConfigFile());
    ASSERT_EQ(console_.Connect(Port()), "|READY|");
  }
  // Sends one command and returns the reply.
  std::string Ask(const std::string& text) {
    console_.Send(text);
    return console_.Reply();
  }
  std::string Tr(const std::string& m) { return "Trace in TDACLI: " + m; }
  std::string File() { return testing::ReadFile(ConfigFile()); }

  Console console_{*t};
  std::string original_;
};

std::string InfoReply(const std::string& pc, const std::string& user, const std::string& win, const std::string& ext,
                      const std::string& server, const std::string& notify, const std::string& ports,
                      const std::string& pop_ex, const std::string& pop_win) {
  return "|GETINFO|<PCName>" + pc + ";<NETUsername>" + user + ";<WinName>" + win + ";<Extension>" + ext +
         ";<TD Server>" + server + ";<Notification Method>" + notify + ";<Listening Ports>" + ports +
         ";<Pop4Ext>" + pop_ex + ";<Pop4Win>" + pop_win + ";";
}

const std::string kPc = std::string("WKS-0042") + '\0';
const std::string kUser = std::string("jsmith") + '\0';
const std::string kWrote = "Trace in TDACLI: Wrote Login Settings to config file";

// --- GETINFO

TEST_F(ConfigCommands, GetInfoReportsEverySettingWithTheNamesNulTerminated) {
  EXPECT_EQ(Ask("|GETINFO|"),
            InfoReply(kPc, kUser, "N/A", "1234", "127.0.0.1", "FileMessage", "1,0,2,3", "false", "false"));
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{Tr("Received GETINFO command from Agent Explorer.")}));
  EXPECT_EQ(File(), original_);
}

TEST_F(ConfigCommands, GetInfoAfterTheFileWasEditedByHandReportsTheEditedValues) {
  testing::WriteFile(ConfigFile(),
                     "[Config]\r\nExt=5150\r\nServer=td.example:8080\r\nCurrentUser=adoe\r\nNotificationMethod=Socket\r\n"
                     "ListeningPorts=1,0,2,3\r\nPopEx=true\r\nPopWinName=TRUE\r\n");
  t->settings.Ext = "9999";  // in memory only: GETINFO reloads the file
  EXPECT_EQ(Ask("xx|GETINFO|yy"),
            InfoReply(kPc, kUser, "adoe", "5150", "td.example:8080", "Socket", "1,0,2,3", "true", "TRUE"));
  EXPECT_EQ(t->settings.Ext, "5150");
}

TEST_F(ConfigCommands, GetInfoWithoutSettingsFileReportsTheDefaults) {
  std::filesystem::remove(ConfigFile());
  EXPECT_EQ(Ask("|GETINFO|"),
            InfoReply(kPc, kUser, "N/A", "1234", "127.0.0.1", "FileMessage", "w,x,y,z", "false", "false"));
}

TEST_F(ConfigCommands, GetInfoWhenTheSystemGivesNoNames) {
  t.host.computer_raw.clear();
  t.host.user_raw.clear();
  EXPECT_EQ(Ask("|GETINFO|"), InfoReply("", "", "N/A", "1234", "127.0.0.1", "FileMessage", "1,0,2,3", "false", "false"));
}

// --- single SET commands

TEST_F(ConfigCommands, SetExtStoresTheExtension) {
  EXPECT_EQ(Ask("|SETEXT|4711;"), "|SETEXT|<Extension>4711;");
  EXPECT_EQ(File(), SettingsFile("4711"));
  EXPECT_EQ(t->settings.Ext, "4711");
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{Tr("Received SETEXT command from Agent Explorer."), kWrote}));
}

TEST_F(ConfigCommands, SetExtWithEmptyValueFailsAndLogsTheRequest) {
  EXPECT_EQ(Ask("|SETEXT|;"), "|SETEXT|<Extension>Failed;");
  EXPECT_EQ(File(), original_);
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETEXT command from Agent Explorer."),
                                      Tr("Extension extracted from command (|SETEXT|;) is empty. SETEXT command ignored.")}));
}

TEST_F(ConfigCommands, ValuesAreTakenAsTheyStandAndTextAroundIsIgnored) {
  EXPECT_EQ(Ask("junk|SETEXT| 47 11 ;more;"), "|SETEXT|<Extension> 47 11 ;");
  EXPECT_EQ(File(), SettingsFile(" 47 11 "));
}

TEST_F(ConfigCommands, SetServerStoresTheServer) {
  EXPECT_EQ(Ask("|SETSERVER|10.20.30.40;"), "|SETSERVER|<TD Server>10.20.30.40;");
  EXPECT_EQ(File(), SettingsFile("1234", "10.20.30.40"));
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{Tr("Received SETSERVER command from Agent Explorer."), kWrote}));
}

TEST_F(ConfigCommands, SetServerWithEmptyValueLogsTheExtensionWording) {
  EXPECT_EQ(Ask("|SETSERVER|;"), "|SETSERVER|<TD Server>Failed;");
  EXPECT_EQ(File(), original_);
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{
                               Tr("Received SETSERVER command from Agent Explorer."),
                               Tr("Extension extracted from command (|SETSERVER|;) is empty. SETSERVER command ignored.")}));
}

TEST_F(ConfigCommands, SetNotifyStoresTheMethodAndQuotesTheRequest) {
  EXPECT_EQ(Ask("A|SETNOTIFY|Socket;B"), "|SETNOTIFY|<Notification Method>Socket;");
  EXPECT_EQ(File(), SettingsFile("1234", "127.0.0.1", "Socket"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETNOTIFY command (A|SETNOTIFY|Socket;B)from Agent Explorer."), kWrote}));
}

TEST_F(ConfigCommands, SetNotifyWithEmptyValueFailsWithOnlyTheReceiptLine) {
  EXPECT_EQ(Ask("|SETNOTIFY|;"), "|SETNOTIFY|<Notification Method>Failed;");
  EXPECT_EQ(File(), original_);
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETNOTIFY command (|SETNOTIFY|;)from Agent Explorer.")}));
}

TEST_F(ConfigCommands, SetListenStoresThePortsAndReopensTheListener) {
  const uint16_t old_port = Port();
  EXPECT_EQ(Ask("|SETLISTEN|5,0,6,7;"), "|SETLISTEN|<Listening Ports>5,0,6,7;");
  EXPECT_EQ(File(), SettingsFile("1234", "127.0.0.1", "FileMessage", "5,0,6,7"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETLISTEN command (|SETLISTEN|5,0,6,7;)from Agent Explorer."), kWrote,
                                      Tr("Contacting the TD Agent Client Screen Capture Service for New Listening Port"),
                                      Tr("Contacting the TD Agent Client Live Monitor Service for New Listening Port")}));
  EXPECT_EQ(t.service_control.sent,
            (std::vector<std::pair<std::string, int>>{{"TDACSC", 135}, {"TDACLM", 135}}));
  // The listener was closed and opened again (port 0: a new free port); the console's own
  // connection is untouched.
  EXPECT_EQ(listener::ListenerOf(*t).Listener().State(), TcpSocket::kListening);
  Console other(*t);
  EXPECT_EQ(other.Connect(Port()), "|READY|");
  if (Port() != old_port) {
    Console late(*t);
    EXPECT_EQ(late.Connect(old_port), "");
  }
  EXPECT_EQ(console_.Quiet(0.2), "");
  EXPECT_FALSE(console_.closed());
}

TEST_F(ConfigCommands, SetListenWithEmptyValueFailsWithOnlyTheReceiptLine) {
  EXPECT_EQ(Ask("|SETLISTEN|;"), "|SETLISTEN|<Listening Ports>Failed;");
  EXPECT_EQ(File(), original_);
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETLISTEN command (|SETLISTEN|;)from Agent Explorer.")}));
  EXPECT_TRUE(t.service_control.sent.empty());
}

TEST_F(ConfigCommands, SetPop4ExtAndPop4Win) {
  EXPECT_EQ(Ask("|SETPOP4EXT|true;"), "|SETPOP4EXT|<Pop4Ext>true;");
  EXPECT_EQ(File(), SettingsFile("1234", "127.0.0.1", "FileMessage", "1,0,2,3", "true"));
  EXPECT_EQ(Ask("|SETPOP4WIN|True;"), "|SETPOP4WIN|<Pop4Win>True;");
  EXPECT_EQ(File(), SettingsFile("1234", "127.0.0.1", "FileMessage", "1,0,2,3", "true", "True"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETPOP4EXT command from Agent Explorer."), kWrote,
                                      Tr("Received SETPOP4WIN command from Agent Explorer."), kWrote}));
}

TEST_F(ConfigCommands, SetPop4ExtAndPop4WinWithEmptyValues) {
  EXPECT_EQ(Ask("|SETPOP4EXT|;"), "|SETPOP4EXT|<Pop4Ext>Failed;");
  EXPECT_EQ(Ask("|SETPOP4WIN|;"), "|SETPOP4WIN|<Pop4Win>Failed;");
  EXPECT_EQ(File(), original_);
  EXPECT_EQ(
      NewMessages(),
      (std::vector<std::string>{
          Tr("Received SETPOP4EXT command from Agent Explorer."),
          Tr("Popup-For-Extension extracted from command (|SETPOP4EXT|;) is empty. SETPOP4EXT command ignored."),
          Tr("Received SETPOP4WIN command from Agent Explorer."),
          Tr("Popup-For-WinName extracted from command (|SETPOP4WIN|;) is empty. SETPOP4WIN command ignored.")}));
}

TEST_F(ConfigCommands, ASetReloadsTheOtherSettingsAndWritesTheFreshFile) {
  testing::WriteFile(ConfigFile(), "Tyndrel - Agent Client Configuration\r\n[Config]\r\nCustom=kept?\r\nServer=srv1\r\n"
                                   "ListeningPorts=1,0,2,3\r\n");
  t->settings.Server = "only-in-memory";
  EXPECT_EQ(Ask("|SETEXT|77;"), "|SETEXT|<Extension>77;");
  EXPECT_EQ(File(), SettingsFile("77", "srv1"));
}

TEST_F(ConfigCommands, AFailedSaveAnswersWithTheOldValue) {
  // A folder where the temporary file should go makes the write fail.
  std::filesystem::create_directory(t.dir.File("TDRegInfo.tmp"));
  EXPECT_EQ(Ask("|SETEXT|4711;"), "|SETEXT|<Extension>1234;");
  EXPECT_EQ(t->settings.Ext, "1234");
  EXPECT_EQ(File(), original_);
  auto msgs = NewMessages();
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[0], Tr("Received SETEXT command from Agent Explorer."));
  EXPECT_EQ(msgs[1].rfind("Error in TDACLI: Error saving settings: ", 0), 0u) << msgs[1];
}

TEST_F(ConfigCommands, SetWithoutSemicolonSendsNothingAndStoresNothing) {
  for (const char* text : {"|SETEXT|4711", "|SETSERVER|x", "|SETNOTIFY|Socket", "|SETLISTEN|5,0,6,7",
                           "|SETPOP4EXT|true", "|SETPOP4WIN|true", "|SETALL||EXT|4711"}) {
    console_.Send(text);
    EXPECT_EQ(console_.Quiet(), "") << text;
  }
  EXPECT_EQ(File(), original_);
  EXPECT_TRUE(t.service_control.sent.empty());
  for (const auto& m : NewMessages()) EXPECT_EQ(m.rfind("Trace in TDACLI: Received ", 0), 0u) << m;
  EXPECT_EQ(Ask("|GETINFO|"),
            InfoReply(kPc, kUser, "N/A", "1234", "127.0.0.1", "FileMessage", "1,0,2,3", "false", "false"));
}

// --- SETALL

TEST_F(ConfigCommands, SetAllStoresExtensionAndServerAndReportsTheOthersUnchanged) {
  const std::string request =
      "|SETALL||EXT|4711;|SERVER|10.1.2.3;|NOTIFICATIONMETHOD|Socket;|LISTENINGPORTS|9,9,9,9;|POP4EXT|true;"
      "|POP4WIN|true;";
  EXPECT_EQ(Ask(request),
            "|SETALL|<Extension>4711;|SETSERVER|<TD Server>10.1.2.3;|SETNOTIFY|<Notification Method>FileMessage;"
            "|SETLISTEN|<Listening Ports>1,0,2,3;|SETPOP4EXT|<Pop4Ext>false;|SETPOP4WIN|<Pop4Win>false;");
  EXPECT_EQ(File(), SettingsFile("4711", "10.1.2.3"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETALL command (" + request + ")from Agent Explorer."), kWrote, kWrote,
                                      kWrote, kWrote,
                                      Tr("Contacting the TD Agent Client Screen Capture Service for New Listening Port"),
                                      Tr("Contacting the TD Agent Client Live Monitor Service for New Listening Port"),
                                      kWrote, kWrote}));
  // Saving the listening ports again restarts the listener and tells the siblings.
  EXPECT_EQ(t.service_control.sent,
            (std::vector<std::pair<std::string, int>>{{"TDACSC", 135}, {"TDACLM", 135}}));
  Console other(*t);
  EXPECT_EQ(other.Connect(Port()), "|READY|");
}

TEST_F(ConfigCommands, SetAllWithEmptyServerSendsFailedAndTheCurrentServer) {
  const std::string request = "|SETALL||EXT|4711;|SERVER|;";
  EXPECT_EQ(Ask(request), "|SETALL|<Extension>4711;|SETSERVER|<TD Server>Failed;|SETSERVER|<TD Server>127.0.0.1;");
  EXPECT_EQ(File(), SettingsFile("4711"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETALL command (" + request + ")from Agent Explorer."), kWrote,
                                      Tr("Server extracted from command (" + request +
                                         ") is empty. SETALL - SERVER command ignored.")}));
}

TEST_F(ConfigCommands, SetAllWithANewNotificationMethodReportsTheOldOne) {
  EXPECT_EQ(Ask("|SETALL||EXT|4711;|NOTIFICATIONMETHOD|Socket;"),
            "|SETALL|<Extension>4711;|SETNOTIFY|<Notification Method>FileMessage;");
  EXPECT_EQ(t->settings.NotificationMethod, "FileMessage");
  EXPECT_EQ(File(), SettingsFile("4711"));
}

TEST_F(ConfigCommands, SetAllWithoutSubTagsAnswersOnlyTheExtension) {
  const std::string request = "|SETALL||EXT|4711;";
  EXPECT_EQ(Ask(request), "|SETALL|<Extension>4711;");
  EXPECT_EQ(File(), SettingsFile("4711"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETALL command (" + request + ")from Agent Explorer."), kWrote}));
}

TEST_F(ConfigCommands, SetAllWithEmptyExtensionSendsOnlyItsFailedSegment) {
  const std::string request = "|SETALL||EXT|;|SERVER|10.0.0.9;";
  EXPECT_EQ(Ask(request), "|SETALL|<Extension>Failed;|SETSERVER|<TD Server>10.0.0.9;");
  EXPECT_EQ(File(), SettingsFile("1234", "10.0.0.9"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{Tr("Received SETALL command (" + request + ")from Agent Explorer."),
                                      Tr("Extension extracted from command (" + request +
                                         ") is empty. SETALL - EXT command ignored."),
                                      kWrote}));
}

TEST_F(ConfigCommands, SetAllSubTagsInAnyOrderAreHandledInTheFixedOrder) {
  const std::string request = "|SETALL||EXT|5;|POP4WIN|;|POP4EXT|;|LISTENINGPORTS|;|NOTIFICATIONMETHOD|;|SERVER|srv;";
  EXPECT_EQ(Ask(request),
            "|SETALL|<Extension>5;|SETSERVER|<TD Server>srv;"
            "|SETNOTIFY|<Notification Method>Failed;|SETNOTIFY|<Notification Method>FileMessage;"
            "|SETLISTEN|<Listening Ports>Failed;|SETLISTEN|<Listening Ports>1,0,2,3;"
            "|SETPOP4EXT|<Pop4Ext>Failed;|SETPOP4EXT|<Pop4Ext>false;"
            "|SETPOP4WIN|<Pop4Win>Failed;|SETPOP4WIN|<Pop4Win>false;");
  EXPECT_EQ(File(), SettingsFile("5", "srv"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{
                Tr("Received SETALL command (" + request + ")from Agent Explorer."), kWrote, kWrote,
                Tr("Notification extracted from command (" + request + ") is empty. SETALL - NOTIFY command ignored."),
                Tr("Listening Ports extracted from command (" + request + ") is empty. SETALL - LISTEN command ignored."),
                Tr("Popup-For-Extension extracted from command (" + request +
                   ") is empty. SETALL - POP4EXT command ignored."),
                Tr("Popup-For-WinName extracted from command (" + request +
                   ") is empty. SETALL - POP4WIN command ignored.")}));
  EXPECT_TRUE(t.service_control.sent.empty());
}

TEST_F(ConfigCommands, SetAllWithoutSemicolonMidWayKeepsTheEarlierPartsAndSendsNothing) {
  console_.Send("|SETALL||EXT|4711;|SERVER|10.9.9.9;|POP4EXT|true");
  EXPECT_EQ(console_.Quiet(), "");
  EXPECT_EQ(t->settings.Ext, "4711");
  EXPECT_EQ(t->settings.Server, "10.9.9.9");
  EXPECT_EQ(File(), SettingsFile("4711", "10.9.9.9"));
  EXPECT_EQ(NewMessages().size(), 3u);  // the receipt and the two saves, nothing for the fault
  EXPECT_EQ(Ask("|GETINFO|"),
            InfoReply(kPc, kUser, "N/A", "4711", "10.9.9.9", "FileMessage", "1,0,2,3", "false", "false"));
}

}  // namespace
}  // namespace tdacli
