#include "config/result_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "common/local_host.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::TestAgent;

std::string Crlf(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\r\n";
  return out;
}

bool Logged(TestAgent& t, const std::string& line) {
  auto msgs = t.Messages();
  return std::find(msgs.begin(), msgs.end(), line) != msgs.end();
}

// The "Trace" messages of the program trace without the start-up and address lines, each without
// its "Trace in TDACLI: " head.
std::vector<std::string> TraceAfterIp(TestAgent& t) {
  std::vector<std::string> out;
  for (const auto& m : t.Messages()) {
    const std::string head = "Trace in TDACLI: ";
    if (m.rfind(head, 0) != 0) continue;
    std::string text = m.substr(head.size());
    if (text == "*************" || text == "*  STARTUP  *" || text.rfind("Set Local IP to: ", 0) == 0) continue;
    out.push_back(text);
  }
  return out;
}

// ---------------------------------------------------------------- FTP credentials

TEST(SaveFtpCredentials, WithoutPortFtp) {
  TestAgent t;
  t->settings.SvrTemp = "\\\\srv\\temp:FTP@ftp.example:agent7:Q2xhdmU=";
  SaveFtpCredentials(*t);
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDACFTP.INI")),
            "[Tyndrel - Agent Client - FTP Credentials]\r\n"
            "\r\n"
            "[Config]\r\n"
            "ServerTemp=\\\\srv\\temp\r\n"
            "FTPServer=ftp.example\r\n"
            "UserName=agent7\r\n"
            "EncryptedPassword=Q2xhdmU=\r\n"
            "Port=21\r\n"
            "Ssl=False\r\n"
            "AuthTLS=False\r\n"
            "Passive=False\r\n"
            "PassiveUseHostAddr=False\r\n"
            "Protocol=FTP\r\n");
  EXPECT_EQ(t->settings.SvrTemp, "\\\\srv\\temp");
  EXPECT_TRUE(t->ftp().FtpCredentialsSaved);
  EXPECT_EQ(t->ftp().FtpServer, "ftp.example");
  EXPECT_EQ(t->ftp().FtpUserName, "agent7");
  EXPECT_EQ(t->ftp().FtpEncryptedPassword, "Q2xhdmU=");
  EXPECT_EQ(t->ftp().FtpPort, "21");
  EXPECT_TRUE(Logged(t, "Trace in TDACLI: Saved the following Variables [SERVERTEMP=\\\\srv\\temp],[PROTOCOL=FTP],"
                        "[FTPSERVER=ftp.example],[FTPUSERNAME=agent7],[FTPPASSWORD=Q2xhdmU=],[FTPPORT=21],"
                        "[FTPSSL=False],[FTPAUTHTLS=False],[FTPPASSIVE=False],[FTPPASSIVEUSEHOSTADDR=False]"));
}

TEST(SaveFtpCredentials, WithoutPortSshPasswordKeepsItsColons) {
  TestAgent t;
  t->settings.SvrTemp = "/data/frames:SSH@sftp.example:agent7:ab:cd";
  SaveFtpCredentials(*t);
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDACFTP.INI")),
            Crlf({"[Tyndrel - Agent Client - FTP Credentials]", "", "[Config]", "ServerTemp=/data/frames",
                  "FTPServer=sftp.example", "UserName=agent7", "EncryptedPassword=ab:cd", "Port=21", "Ssl=False",
                  "AuthTLS=False", "Passive=False", "PassiveUseHostAddr=False", "Protocol=SSH"}));
  EXPECT_TRUE(Logged(t, "Trace in TDACLI: Saved the following Variables [SERVERTEMP=/data/frames],[PROTOCOL=SSH],"
                        "[FTPSERVER=sftp.example],[FTPUSERNAME=agent7],[FTPPASSWORD=ab:cd],[FTPPORT=21],"
                        "[FTPSSL=False],[FTPAUTHTLS=False],[FTPPASSIVE=False],[FTPPASSIVEUSEHOSTADDR=False]"));
}

TEST(SaveFtpCredentials, WithPortSshAndFlags) {
  TestAgent t;
  t->settings.SvrTemp = "\\\\srv\\temp:SSH@sftp.example:Port=2222:TftF:agent7:c2VjcmV0";
  SaveFtpCredentials(*t);
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDACFTP.INI")),
            "[Tyndrel - Agent Client - FTP Credentials]\r\n"
            "\r\n"
            "[Config]\r\n"
            "ServerTemp=\\\\srv\\temp\r\n"
            "FTPServer=sftp.example\r\n"
            "UserName=agent7\r\n"
            "EncryptedPassword=c2VjcmV0\r\n"
            "Port=2222\r\n"
            "Ssl=True\r\n"
            "AuthTLS=False\r\n"
            "Passive=True\r\n"
            "PassiveUseHostAddr=False\r\n"
            "Protocol=SSH\r\n");
  EXPECT_TRUE(t->ftp().FtpSsl);
  EXPECT_FALSE(t->ftp().FtpAuthTLS);
  EXPECT_TRUE(t->ftp().FtpPassive);  // "t" counts: the flags are compared in upper case
  EXPECT_FALSE(t->ftp().FtpPassiveUseHostAddr);
  EXPECT_TRUE(Logged(t, "Trace in TDACLI: Saved the following Variables [SERVERTEMP=\\\\srv\\temp],[PROTOCOL=SSH],"
                        "[FTPSERVER=sftp.example],[FTPUSERNAME=agent7],[FTPPASSWORD=c2VjcmV0],[FTPPORT=2222],"
                        "[FTPSSL=True],[FTPAUTHTLS=False],[FTPPASSIVE=True],[FTPPASSIVEUSEHOSTADDR=False]"));
}

TEST(SaveFtpCredentials, DriveColonInTheFolderShiftsEveryField) {
  TestAgent t;
  t->settings.SvrTemp = "D:\\x:FTP@10.1.2.3:Port=990:TTTT:u:p";
  SaveFtpCredentials(*t);
  // Fields are cut at every ":", so the drive's colon ends the folder and the rest moves one along:
  // "Port=990" lands in the flag field, where its fourth letter, T, sets PassiveUseHostAddr.
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDACFTP.INI")),
            Crlf({"[Tyndrel - Agent Client - FTP Credentials]", "", "[Config]", "ServerTemp=D", "FTPServer=\\x",
                  "UserName=TTTT", "EncryptedPassword=u:p", "Port=FTP@10.1.2.3", "Ssl=False", "AuthTLS=False",
                  "Passive=False", "PassiveUseHostAddr=True", "Protocol=FTP"}));
}

TEST(SaveFtpCredentials, WithPortAndAllFourFlags) {
  TestAgent t;
  t->settings.SvrTemp = "frames:FTP@ftp.example:Port=990:TTTT:agent7:pw";
  SaveFtpCredentials(*t);
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDACFTP.INI")),
            Crlf({"[Tyndrel - Agent Client - FTP Credentials]", "", "[Config]", "ServerTemp=frames",
                  "FTPServer=ftp.example", "UserName=agent7", "EncryptedPassword=pw", "Port=990", "Ssl=True",
                  "AuthTLS=True", "Passive=True", "PassiveUseHostAddr=True", "Protocol=FTP"}));
}

TEST(SaveFtpCredentials, ShortFlagFieldLeavesAllFlagsFalse) {
  TestAgent t;
  t->WriteFtp().FtpSsl = true;  // from an earlier login: reset first
  t->settings.SvrTemp = "frames:FTP@ftp.example:Port=2121:TTT:agent7:pw";
  SaveFtpCredentials(*t);
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDACFTP.INI")),
            Crlf({"[Tyndrel - Agent Client - FTP Credentials]", "", "[Config]", "ServerTemp=frames",
                  "FTPServer=ftp.example", "UserName=agent7", "EncryptedPassword=pw", "Port=2121", "Ssl=False",
                  "AuthTLS=False", "Passive=False", "PassiveUseHostAddr=False", "Protocol=FTP"}));
  EXPECT_FALSE(t->ftp().FtpSsl || t->ftp().FtpAuthTLS || t->ftp().FtpPassive || t->ftp().FtpPassiveUseHostAddr);
}

TEST(SaveFtpCredentials, BareFolderWritesNothingAndKeepsSvrTemp) {
  TestAgent t;
  t->WriteFtp().FtpServer = "old.example";
  t->WriteFtp().FtpPort = "2222";
  t->WriteFtp().FtpPassive = true;
  t->WriteFtp().FtpCredentialsSaved = true;
  t->settings.SvrTemp = "\\\\srv\\temp";
  SaveFtpCredentials(*t);
  EXPECT_FALSE(testing::Exists(t.dir.File("TDACFTP.INI")));
  EXPECT_EQ(t->settings.SvrTemp, "\\\\srv\\temp");
  EXPECT_FALSE(t->ftp().FtpCredentialsSaved);
  EXPECT_EQ(t->ftp().FtpServer, "");
  EXPECT_EQ(t->ftp().FtpPort, "21");
  EXPECT_FALSE(t->ftp().FtpPassive);
  EXPECT_TRUE(TraceAfterIp(t).empty());
}

TEST(SaveFtpCredentials, UnwritableFileStillLogsAndCountsAsSaved) {
  TestAgent t;
  std::filesystem::create_directory(t.dir.File("TDACFTP.INI"));
  t->settings.SvrTemp = "f:FTP@h:u:p";
  SaveFtpCredentials(*t);
  EXPECT_TRUE(std::filesystem::is_directory(t.dir.File("TDACFTP.INI")));
  EXPECT_TRUE(t->ftp().FtpCredentialsSaved);
  EXPECT_TRUE(Logged(t, "Trace in TDACLI: Saved the following Variables [SERVERTEMP=f],[PROTOCOL=FTP],"
                        "[FTPSERVER=h],[FTPUSERNAME=u],[FTPPASSWORD=p],[FTPPORT=21],[FTPSSL=False],"
                        "[FTPAUTHTLS=False],[FTPPASSIVE=False],[FTPPASSIVEUSEHOSTADDR=False]"));
}

TEST(ParseFtpCredentials, MissingColonsLeaveFieldsEmptyAndRemainderUnchanged) {
  FtpCredentials c = ParseFtpCredentials("FTP@host");
  EXPECT_TRUE(c.present);
  EXPECT_EQ(c.folder, "");
  EXPECT_EQ(c.server, "");
  EXPECT_EQ(c.user_name, "");
  EXPECT_EQ(c.encrypted_password, "FTP@host");
  EXPECT_EQ(c.protocol, "FTP");

  c = ParseFtpCredentials("f:SSH@h:Port=22");
  EXPECT_EQ(c.folder, "f");
  EXPECT_EQ(c.server, "h");
  EXPECT_EQ(c.port, "");  // field 3 empty: no ":" after "Port=22"
  EXPECT_EQ(c.encrypted_password, "Port=22");
  EXPECT_EQ(c.protocol, "SSH");
}

TEST(ParseFtpCredentials, ServerLosesEveryProtocolMarker) {
  FtpCredentials c = ParseFtpCredentials("f:FTP@SSH@hostFTP@:u:p");
  EXPECT_EQ(c.server, "host");
  EXPECT_EQ(c.protocol, "SSH");
}

TEST(ParseFtpCredentials, NoMarkerMeansNoCredentials) {
  EXPECT_FALSE(ParseFtpCredentials("\\\\srv\\temp").present);
  EXPECT_FALSE(ParseFtpCredentials("f:ftp@h:u:p").present);  // the marker is case-sensitive
  EXPECT_FALSE(ParseFtpCredentials("").present);
}

// ---------------------------------------------------------------- valid IP mask

TEST(SaveValidIPMask, WritesMaskInUpperCase) {
  TestAgent t;
  std::string mask = "192.168.5.,pc-name";
  SaveValidIPMask(*t, mask);
  EXPECT_EQ(mask, "192.168.5.,PC-NAME");
  const std::string path = t.dir.File("TDIPMASK.INI");
  EXPECT_EQ(testing::ReadFile(path),
            "[Tyndrel - Agent Client - Valid IP Mask]\r\n"
            "\r\n"
            "[Config]\r\n"
            "IPMask=192.168.5.,PC-NAME\r\n");
  EXPECT_TRUE(Logged(t, "Trace in TDACLI: Saved the following Variables [IPMASK=192.168.5.,PC-NAME] to file [" +
                            path + "]"));
  EXPECT_EQ(ReadIPMask(path), "192.168.5.,PC-NAME");
}

TEST(SaveValidIPMask, NoneInLowerCaseWritesNothing) {
  TestAgent t;
  std::string mask = "none";
  SaveValidIPMask(*t, mask);
  EXPECT_EQ(mask, "NONE");
  EXPECT_FALSE(testing::Exists(t.dir.File("TDIPMASK.INI")));
  EXPECT_TRUE(TraceAfterIp(t).empty());
}

TEST(SaveValidIPMask, ReplacesAnOlderFile) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDIPMASK.INI"), "old content that is much longer than the new one\r\n");
  std::string mask = "10.";
  SaveValidIPMask(*t, mask);
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDIPMASK.INI")),
            Crlf({"[Tyndrel - Agent Client - Valid IP Mask]", "", "[Config]", "IPMask=10."}));
}

// ---------------------------------------------------------------- live id

TEST(SaveLiveID, WritesFileAndFourTraceLines) {
  TestAgent t;
  t->WriteLogin().TDLiveID = "48213";
  t->WriteLogin().RepeaterIP = "10.1.2.3";
  t->WriteLogin().RepeaterPort = "5020";
  t->WriteLogin().PeerToPeerCapable = true;
  SaveLiveID(*t);
  const std::string path = t.dir.File("TDLiveID.INI");
  EXPECT_EQ(testing::ReadFile(path),
            "[LiveID]\r\n"
            "TDLiveID=48213\r\n"
            "RepeaterIP=10.1.2.3\r\n"
            "RepeaterPort=5020\r\n"
            "PeerToPeerCapable=True\r\n");
  EXPECT_EQ(TraceAfterIp(t), (std::vector<std::string>{
                                 "Saved [TDLiveID=48213] to [" + path + "]",
                                 "Saved [RepeaterIP=[10.1.2.3] to [" + path + "]",
                                 "Saved [RepeaterPort=5020] to [" + path + "]",
                                 "Saved [PeerToPeerCapable=True] to [" + path + "]",
                             }));
}

TEST(SaveLiveID, NotPeerToPeerCapableAndEmptyValues) {
  TestAgent t;
  t->WriteLogin().TDLiveID = "48213";
  SaveLiveID(*t);
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDLiveID.INI")),
            Crlf({"[LiveID]", "TDLiveID=48213", "RepeaterIP=", "RepeaterPort=", "PeerToPeerCapable=False"}));
}

// ---------------------------------------------------------------- remote-control settings

const std::vector<std::string> kRcLines = {"[Permissions]",    "[admin]",         "DisableTrayIcon=1",
                                           "AutoPortSelect=0", "PortNumber=5017", "HTTPPortNumber=5018",
                                           "HTTPConnect=1",    "AuthRequired=0"};

std::string RcPath(TestAgent& t) { return t.dir.File("RC") + kSepStr + "TDACVC.INI"; }

TEST(CreateRemoteControlSettings, CreatesTheEightLinesInTheRcFolder) {
  TestAgent t;
  std::filesystem::create_directory(t.dir.File("RC"));
  CreateRemoteControlSettings(*t);
  EXPECT_EQ(testing::ReadFile(RcPath(t)),
            "[Permissions]\r\n"
            "[admin]\r\n"
            "DisableTrayIcon=1\r\n"
            "AutoPortSelect=0\r\n"
            "PortNumber=5017\r\n"
            "HTTPPortNumber=5018\r\n"
            "HTTPConnect=1\r\n"
            "AuthRequired=0\r\n");
  std::vector<std::string> expected;
  for (const auto& l : kRcLines) expected.push_back("[RC\\TDACVC.INI] Not Found, Creating With: " + l);
  EXPECT_EQ(TraceAfterIp(t), expected);
}

TEST(CreateRemoteControlSettings, SecondCallNeverOverwritesAnEditedFile) {
  TestAgent t;
  std::filesystem::create_directory(t.dir.File("RC"));
  CreateRemoteControlSettings(*t);
  testing::WriteFile(RcPath(t), "[Permissions]\r\n[admin]\r\nPortNumber=6000\r\n");
  CreateRemoteControlSettings(*t);
  EXPECT_EQ(testing::ReadFile(RcPath(t)), "[Permissions]\r\n[admin]\r\nPortNumber=6000\r\n");
  EXPECT_EQ(TraceAfterIp(t).back(), "[RC\\TDACVC.INI] Exists, Do Not Create!");
  EXPECT_EQ(TraceAfterIp(t).size(), 9u);
}

TEST(CreateRemoteControlSettings, MissingRcFolderWritesNothingButStillLogs) {
  TestAgent t;
  CreateRemoteControlSettings(*t);
  EXPECT_FALSE(testing::Exists(t.dir.File("RC")));
  EXPECT_FALSE(testing::Exists(RcPath(t)));
  EXPECT_EQ(TraceAfterIp(t).size(), 8u);
}

}  // namespace
}  // namespace tdacli
