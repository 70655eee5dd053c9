// The GETVER component report byte for byte: an empty application folder, real PE images with version
// resources, both OS-code families, user-session mode, the FTP block both ways. The same expectations
// hold on Linux (portable PE reader) and under Wine (the Windows version API).
#include <gtest/gtest.h>

#include <filesystem>

#include "common/paths.h"
#include "common/text.h"
#include "listener/component_report.h"
#include "listener/console.h"
#include "platform/file_times.h"
#include "platform/version_info.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace tdacli {
namespace {

namespace fs = std::filesystem;
using testing::Console;
using testing::ListeningAgent;

std::string Fixture(const std::string& name) {
  std::string p = std::string(TDACLI_SOURCE_DIR) + "/tests/data/pe/" + name;
#ifdef _WIN32
  for (char& c : p)
    if (c == '/') c = '\\';
  p = "Z:" + p;
#endif
  return p;
}

const std::string kHead =
    "Agent Client Components Information:{CRLF}{CRLF}"
    "Component name                     Version       State                 Account{CRLF}{CRLF}";

std::string Settings(const std::string& server = "127.0.0.1", const std::string& local_temp = "unknown") {
  return "TD Server: " + server + "{CRLF}Local Temp: " + local_temp +
         "{CRLF}TD Server Temp: Unknown{CRLF}Current User: N/A{CRLF}Current Event: N/A{CRLF}";
}

const std::string kNoFtp =
    "Use FTP: False{CRLF}FTP Server: N/A{CRLF}FTP Username: N/A{CRLF}FTP Encrypted pw: N/A{CRLF}FTP Port: N/A{CRLF}"
    "FTP Ssl: N/A{CRLF}FTP AuthTLS: N/A{CRLF}FTP Passive: N/A{CRLF}FTP PassiveUseHostAddr: N/A{CRLF}";

const std::string kLowerRows =
    "System Event Detector: N/A{CRLF}"
    "Web Cam Control: N/A{CRLF}"
    "Update Manager: Unavailable!{CRLF}"
    "Agent Login Detector: Unavailable!{CRLF}"
    "Agent Configuration: Unavailable!{CRLF}"
    "Agent Desktop: Unavailable!{CRLF}{CRLF}"
    "TDNTService Control: Unavailable!{CRLF}"
    "TDCamCorder Control: Unavailable!{CRLF}"
    "Agent Client Remote Control: Unavailable!{CRLF}"
    "Agent Client Remote Library: Unavailable!{CRLF}"
    "Agent Client Remote Contro2: Unavailable!{CRLF}"
    "Agent Client Remote IP Port: (Unknown){CRLF}{CRLF}"
    " - - - - - - - - - - - - - - : {CRLF}"
    "Agent Client FTP Control: Unavailable!{CRLF}";

class ComponentReport : public ListeningAgent {
 protected:
  std::string Build() {
    listener::BuildComponentReport(*t);
    return t->component_report_text;
  }
  // Copies a fixture into the application folder under `name`, dated 2026-11-14 23:15:02.
  void Put(const std::string& fixture, const std::string& name) {
    const std::string to = t->AppPath(name);
    fs::create_directories(fs::path(to).parent_path());
    fs::copy_file(Fixture(fixture), to, fs::copy_options::overwrite_existing);
    ASSERT_TRUE(platform::SetFileModifiedLocal(to, {2026, 11, 14, 23, 15, 2}));
  }
  // State and account columns as this host reports the service.
  std::string Columns(const std::string& service) {
    const auto d = platform::QueryServiceDetails(t->app_folder, service);
    return "     " + d.state + "     " + d.account + "{CRLF}";
  }
};

const std::string kFull = "3, 0, 0, 7,[date=2026-11-14],[time=23:15:02],[size=3,072]";
const std::string kFullDotted = "3.0.0.7,[date=2026-11-14],[time=23:15:02],[size=3,072]";
const std::string kProg = "2, 1, 0, 15,[date=2026-11-14],[time=23:15:02],[size=15,872]";
const std::string kFull32 = "3, 0, 0, 7,[date=2026-11-14],[time=23:15:02],[size=1,536]";

TEST_F(ComponentReport, EmptyFolderListsEveryRowUnavailable) {
  EXPECT_EQ(Build(), kHead +
                         "Agent Login Service: Unavailable!{CRLF}"
                         "Screen Capture Service : Unavailable!{CRLF}"
                         "Media Transfer Service: Unavailable!{CRLF}{CRLF}"
                         "Live Monitor Service:   Unavailable!{CRLF}{CRLF}" +
                         kLowerRows + Settings() + "Use WebCam: False{CRLF}" + kNoFtp);
}

TEST_F(ComponentReport, EmptyFolderOnVistaAndLaterGivesCaptureAndMonitorAfterMediaTransfer) {
  for (int code : {60, 61, 62, 63, 10}) {
    t->os_code = code;
    EXPECT_EQ(Build(), kHead +
                           "Agent Login Service: Unavailable!{CRLF}"
                           "Media Transfer Service: Unavailable!{CRLF}{CRLF}"
                           "Screen Capture Service: Unavailable!{CRLF}"
                           "Live Monitor Service: Unavailable!{CRLF}" +
                           kLowerRows + Settings() + "Use WebCam: False{CRLF}" + kNoFtp)
        << code;
  }
}

TEST_F(ComponentReport, RealImagesOnOlderWindowsWithServiceColumns) {
  t->os_code = 51;
  Put("full64.dll", "TDACLI.EXE");
  Put("prog64.exe", "TDACSC.EXE");
  Put("full32.dll", "TDACMT.EXE");
  Put("full64.dll", "TDACSE.EXE");
  Put("nover64.exe", "TDACWC.EXE");  // exists, but has no version resource
  Put("full64.dll", "UPDMGR.EXE");
  Put("full64.dll", "SVCCTL.OCX");
  Put("full64.dll", "SCRREC2.OCX");
  Put("full64.dll", "RC" + kSepStr + "TDACVC.EXE");
  Put("full64.dll", "RC" + kSepStr + "rchooks2.dll");
  Put("full64.dll", "RC" + kSepStr + "TDACV2.EXE");
  Put("full64.dll", "FTPLIB2.DLL");
  testing::WriteFile(t->AppPath("RC" + kSepStr + "TDACLM.INI"), "[Config]\r\nServerPort=5020\r\nServerPort=\r\n");
  EXPECT_EQ(Build(), kHead + "Agent Login Service:              " + kFull + Columns("TDACLI") +
                         "Screen Capture Service :         " + kProg + Columns("TDACSC") +
                         "Media Transfer Service:           " + kFull32 + Columns("TDACMT") +
                         "Live Monitor Service:   Unavailable!{CRLF}{CRLF}"
                         "System Event Detector: " + kFullDotted + "{CRLF}"
                         "Web Cam Control: Unavailable!{CRLF}"
                         "Update Manager: " + kFull + "{CRLF}"
                         "Agent Login Detector: Unavailable!{CRLF}"
                         "Agent Configuration: Unavailable!{CRLF}"
                         "Agent Desktop: Unavailable!{CRLF}{CRLF}"
                         "TDNTService Control: " + kFullDotted + "{CRLF}"
                         "TDCamCorder Control: " + kFull + "{CRLF}"
                         "Agent Client Remote Control: " + kFullDotted + "{CRLF}"
                         "Agent Client Remote Library: " + kFullDotted + "{CRLF}"
                         "Agent Client Remote Contro2: " + kFullDotted + "{CRLF}"
                         "Agent Client Remote IP Port: 5020{CRLF}{CRLF}"
                         " - - - - - - - - - - - - - - : {CRLF}"
                         "Agent Client FTP Control: " + kFullDotted + "{CRLF}" +
                         Settings() + "Use WebCam: False{CRLF}" + kNoFtp);
}

TEST_F(ComponentReport, RealImagesOnWindowsTenAndThePreferredAlternatives) {
  t->os_code = 10;
  Put("full64.dll", "TDACLI.EXE");
  Put("full64.dll", "TDACSC.EXE");
  Put("prog64.exe", "TDACLM.EXE");
  Put("full64.dll", "SCRREC3.OCX");
  Put("prog64.exe", "SCRREC2.OCX");
  Put("full64.dll", "RC" + kSepStr + "RCHOOKS.DLL");
  Put("prog64.exe", "RC" + kSepStr + "rchooks2.dll");
  const std::string r = Build();
  EXPECT_EQ(r, kHead + "Agent Login Service:              " + kFull + Columns("TDACLI") +
                   "Media Transfer Service: Unavailable!{CRLF}{CRLF}"
                   "Screen Capture Service: " + kFull + "{CRLF}"
                   "Live Monitor Service: " + kProg + "{CRLF}"
                   "System Event Detector: N/A{CRLF}"
                   "Web Cam Control: N/A{CRLF}"
                   "Update Manager: Unavailable!{CRLF}"
                   "Agent Login Detector: Unavailable!{CRLF}"
                   "Agent Configuration: Unavailable!{CRLF}"
                   "Agent Desktop: Unavailable!{CRLF}{CRLF}"
                   "TDNTService Control: Unavailable!{CRLF}"
                   "TDCamCorder Control: " + kFull + "{CRLF}"
                   "Agent Client Remote Control: Unavailable!{CRLF}"
                   "Agent Client Remote Library: " + kFullDotted + "{CRLF}"
                   "Agent Client Remote Contro2: Unavailable!{CRLF}"
                   "Agent Client Remote IP Port: (Unknown){CRLF}{CRLF}"
                   " - - - - - - - - - - - - - - : {CRLF}"
                   "Agent Client FTP Control: Unavailable!{CRLF}" +
                   Settings() + "Use WebCam: False{CRLF}" + kNoFtp);
}

TEST_F(ComponentReport, UserSessionModeReportsFileDetailsOnly) {
  testing::WriteFile(t->AppPath("thinterminal.dat"), "");
  Put("full64.dll", "tdacli.exe");
  Put("prog64.exe", "tdacmt.exe");
  EXPECT_EQ(Build(), kHead + "Agent Login Service: " + kFull + "{CRLF}" +
                         "Screen Capture Service : Unavailable!{CRLF}"
                         "Media Transfer Service: " + kProg + "{CRLF}" +
                         "Live Monitor Service:   Unavailable!{CRLF}{CRLF}" + kLowerRows + Settings() +
                         "Use WebCam: False{CRLF}" + kNoFtp);
}

TEST_F(ComponentReport, ComponentNamesAreFoundWhateverTheirCase) {
  Put("full64.dll", "tdacli.exe");
  Put("full64.dll", "rc" + kSepStr + "TdAcVc.ExE");
  const std::string r = Build();
  EXPECT_TRUE(Contains(r, "{CRLF}{CRLF}Agent Login Service:              " + kFull + Columns("TDACLI"))) << r;
  EXPECT_TRUE(Contains(r, "{CRLF}Agent Client Remote Control: " + kFullDotted + "{CRLF}")) << r;
}

TEST_F(ComponentReport, SettingsWithBlanksAndTheFtpBlock) {
  t->settings.Server = "td server 01";
  t->WriteLogin().UseWebCam = true;
  auto& f = t->WriteFtp();
  f.FtpCredentialsSaved = true;
  f.FtpServer = "ftp.example.com";
  f.FtpUserName = "td user";
  f.FtpEncryptedPassword = "9F8E 7D6C";
  f.FtpPort = "2121";
  f.FtpSsl = true;
  f.FtpPassive = true;
  const std::string r = Build();
  const size_t at = r.find("TD Server: ");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(r.substr(at), Settings("td_server_01") +
                              "Use WebCam: True{CRLF}Use FTP: True{CRLF}FTP Server: ftp.example.com{CRLF}"
                              "FTP Username: td_user{CRLF}FTP Encrypted pw: 9F8E_7D6C{CRLF}FTP Port: 2121{CRLF}"
                              "FTP Ssl: True{CRLF}FTP AuthTLS: False{CRLF}FTP Passive: True{CRLF}"
                              "FTP PassiveUseHostAddr: False{CRLF}");
}

TEST_F(ComponentReport, NoLineBreaksEvenFromAHostileVersionText) {
  // The FileVersion text of the image, "3, 0, 0, 7", with a CR and an LF in place of its first ", ".
  std::string bytes = testing::ReadFile(Fixture("full64.dll"));
  const std::string from("3\0,\0 \0", 6), to("3\0\r\0\n\0", 6);
  const size_t p = bytes.find(from);
  ASSERT_NE(p, std::string::npos);
  bytes.replace(p, from.size(), to);
  testing::WriteFile(t->AppPath("UPDMGR.EXE"), bytes);
  t->settings.CurrentEvent = "a\r\nb";
  const std::string r = Build();
  EXPECT_EQ(r.find('\r'), std::string::npos);
  EXPECT_EQ(r.find('\n'), std::string::npos);
  EXPECT_TRUE(Contains(r, "Update Manager: 3  0, 0, 7,[date=")) << r;
}

TEST_F(ComponentReport, RemoteControlPortFromItsFile) {
  EXPECT_EQ(listener::ReadRemoteControlPort(*t), "(Unknown)");
  EXPECT_EQ(listener::ParseRemoteControlPort("ServerPort=\r\n"), "(Unknown)");
  EXPECT_EQ(listener::ParseRemoteControlPort("=5\r\nserverport=6\r\nServerPort\r\n"), "(Unknown)");
  EXPECT_EQ(listener::ParseRemoteControlPort("ServerPort=5020\r\nX=1\r\nServerPort=6000=7\r\nServerPort=\r\n"),
            "6000=7");
  EXPECT_EQ(listener::ParseRemoteControlPort("ServerPort= 5020 "), " 5020 ");
}

#ifndef _WIN32
// Pipes in place of the components and of the port file: the report is built without waiting.
TEST_F(ComponentReport, PipesInPlaceOfFilesAreNotRead) {
  std::filesystem::create_directories(t->AppPath("RC"));
  ASSERT_EQ(mkfifo(t->AppPath("RC/TDACLM.INI").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(t->AppPath("TDACLI.EXE").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(t->AppPath("TDACSE.EXE").c_str(), 0600), 0);
  const std::string r = Build();
  EXPECT_TRUE(Contains(r, "{CRLF}{CRLF}Agent Login Service: Unavailable!{CRLF}")) << r;
  EXPECT_TRUE(Contains(r, "{CRLF}System Event Detector: N/A{CRLF}")) << r;
  EXPECT_TRUE(Contains(r, "{CRLF}Agent Client Remote IP Port: (Unknown){CRLF}")) << r;
}
#endif

TEST_F(ComponentReport, FileSizesCarryThousandsSeparators) {
  EXPECT_EQ(listener::FormatFileSize(0), "0");
  EXPECT_EQ(listener::FormatFileSize(999), "999");
  EXPECT_EQ(listener::FormatFileSize(1000), "1,000");
  EXPECT_EQ(listener::FormatFileSize(15872), "15,872");
  EXPECT_EQ(listener::FormatFileSize(1234567890123ULL), "1,234,567,890,123");
}

TEST_F(ComponentReport, GetVerOverTheListenerReloadsTheSettingsAndReplies) {
  testing::WriteFile(ConfigFile(), testing::SettingsFile("1234", "10.9.8.7"));
  Console console(*t);
  ASSERT_EQ(console.Connect(Port()), "|READY|");
  console.Send("|GETVER|");
  const std::string reply = console.Reply();
  EXPECT_EQ(reply, "|GETVER|<Status>" + kHead +
                       "Agent Login Service: Unavailable!{CRLF}"
                       "Screen Capture Service : Unavailable!{CRLF}"
                       "Media Transfer Service: Unavailable!{CRLF}{CRLF}"
                       "Live Monitor Service:   Unavailable!{CRLF}{CRLF}" +
                       kLowerRows + Settings("10.9.8.7") + "Use WebCam: False{CRLF}" + kNoFtp);
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received GETVER command from Agent Explorer "
                                                     "(IP = 127.0.0.1), calling svcMain_Control()"}));
}

}  // namespace
}  // namespace tdacli
