#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "common/files.h"
#include "common/local_host.h"
#include "common/logging.h"
#include "common/text.h"
#include "platform/platform.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::TestAgent;

void WriteMask(TestAgent& t, const std::string& value) {
  testing::WriteFile(t.dir.File("TDIPMASK.INI"),
                     "[Tyndrel - Agent Client - Valid IP Mask]\r\n\r\n[Config]\r\nIPMask=" + value + "\r\n");
}

std::vector<std::string> MessagesOf(TestAgent& t, const std::string& ip_part) {
  return testing::TraceMessages(t.dir.File(ip_part + "-TDACLI-TraceFile.TXT"));
}

bool Has(const std::vector<std::string>& v, const std::string& s) { return std::find(v.begin(), v.end(), s) != v.end(); }

// ---------------------------------------------------------------- DetermineLocalIP

TEST(DetermineLocalIP, WithoutMaskFileTakesFirstIPv4OfFirstAdapterThatHasOne) {
  TestAgent t;
  t.host.adapters = {{}, {"fe80::1c2d:3e4f:5a6b:7c8d", "10.0.0.7", "10.0.0.8"}, {"192.168.5.20"}};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "10.0.0.7");
  EXPECT_TRUE(Has(MessagesOf(t, "10-0-0-7"), "Trace in TDACLI: Set Local IP to: 10.0.0.7"));
}

TEST(DetermineLocalIP, AdaptersListedOutOfIndexOrderAreTakenByInterfaceIndex) {
  TestAgent t;
  // The system lists interface 12 before interface 3; the adapter query answers by index.
  t.host.adapters = {{"10.0.0.7"}, {"192.168.5.20"}};
  t.host.adapter_indexes = {12, 3};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "192.168.5.20");
  EXPECT_TRUE(Has(MessagesOf(t, "192-168-5-20"), "Trace in TDACLI: Set Local IP to: 192.168.5.20"));
}

TEST(DetermineLocalIP, LastMaskMatchIsTheLastInIndexOrder) {
  TestAgent t;
  WriteMask(t, "10.0.0.");
  t.host.adapters = {{"10.0.0.9"}, {"10.0.0.7"}};
  t.host.adapter_indexes = {7, 2};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "10.0.0.9");
}

TEST(AdaptersInIndexOrder, SortsByIndexAndKeepsTheSystemOrderOfEqualIndexes) {
  std::vector<platform::Adapter> in = {{9, {"a"}}, {2, {"b"}}, {9, {"c"}}, {1, {"d"}}};
  std::vector<std::string> order;
  for (const auto& a : AdaptersInIndexOrder(in)) order.push_back(a.addresses.at(0));
  EXPECT_EQ(order, (std::vector<std::string>{"d", "b", "a", "c"}));
}

TEST(DetermineLocalIP, MaskPcNameInLowerCaseGivesNetBiosNameAndNamesTheTraceFiles) {
  TestAgent t;
  WriteMask(t, "pc-name");
  t.host.names[0] = "WKS-0042";
  t->computer_names = t.host.names;
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "WKS-0042");
  LogMessage(*t, "after the address", "Trace");
  EXPECT_TRUE(testing::Exists(t.dir.File("WKS-0042-TDACLI-TraceFile.TXT")));
  EXPECT_TRUE(testing::Exists(t.dir.File("WKS-0042-TraceFile.TXT")));
  auto msgs = MessagesOf(t, "WKS-0042");
  EXPECT_TRUE(Has(msgs, "Trace in TDACLI: after the address"));
  // The name choice is not logged.
  EXPECT_EQ(std::count_if(msgs.begin(), msgs.end(), [](const std::string& m) { return Contains(m, "Set Local IP"); }),
            0);
}

TEST(DetermineLocalIP, MaskPcNameFqdnInAnyCaseGivesFullyQualifiedName) {
  TestAgent t;
  WriteMask(t, "Pc-Name-Fqdn");
  t->computer_names = t.host.names;
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "wks-0042.corp.example");
}

TEST(DetermineLocalIP, PcNameUsesTheNamesLoadedBefore) {
  TestAgent t;
  WriteMask(t, "PC-NAME");
  DetermineLocalIP(*t);  // names not loaded yet: empty
  EXPECT_EQ(t->local_ip, "");
}

TEST(DetermineLocalIP, MaskChoosesTheMatchingAdapterAndNamesTheTraceFiles) {
  TestAgent t;
  WriteMask(t, "192.168.5.");
  t.host.adapters = {{"10.0.0.7"}, {"192.168.5.20"}};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "192.168.5.20");
  LogMessage(*t, "hello", "Trace");
  EXPECT_TRUE(testing::Exists(t.dir.File("192-168-5-20-TDACLI-TraceFile.TXT")));
  EXPECT_TRUE(testing::Exists(t.dir.File("192-168-5-20-TraceFile.TXT")));
  EXPECT_FALSE(testing::Exists(t.dir.File("10-0-0-7-TDACLI-TraceFile.TXT")));
  EXPECT_EQ(t.Messages()[3], "Trace in TDACLI: Set Local IP to: 192.168.5.20");
}

TEST(DetermineLocalIP, LoggingBeforeTheAddressIsKnownFindsItByTheMask) {
  TestAgent t;
  WriteMask(t, "192.168.5.");
  t.host.adapters = {{"10.0.0.7"}, {"192.168.5.20"}};
  LogMessage(*t, "first line of the run", "Trace");
  EXPECT_TRUE(testing::Exists(t.dir.File("192-168-5-20-TDACLI-TraceFile.TXT")));
  EXPECT_FALSE(testing::Exists(t.dir.File("10-0-0-7-TDACLI-TraceFile.TXT")));
}

TEST(DetermineLocalIP, MaskMatchingNoAddressTakesTheFirstIPv4) {
  TestAgent t;
  WriteMask(t, "172.16.");
  t.host.adapters = {{"10.0.0.7"}, {"192.168.5.20"}};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "10.0.0.7");
}

TEST(DetermineLocalIP, LastMatchingAddressWins) {
  TestAgent t;
  WriteMask(t, "192.168.");
  t.host.adapters = {{"192.168.1.5", "10.0.0.7"}, {"192.168.5.20"}};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "192.168.5.20");
}

TEST(DetermineLocalIP, IPv6FirstThenIPv4TakesTheIPv4) {
  TestAgent t;
  t.host.adapters = {{"fe80::1", "192.168.5.20"}};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "192.168.5.20");
}

TEST(DetermineLocalIP, PlaceholderEntriesAreSkipped) {
  TestAgent t;
  t.host.adapters = {{"0.0.0.0", "", " "}, {"10.1.1.1"}};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "10.1.1.1");
}

TEST(DetermineLocalIP, NoEnabledAdapterGivesUnknownAndTheUnknownTraceFile) {
  TestAgent t;
  t.host.adapters = {};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "(Unknown)");
  EXPECT_TRUE(testing::Exists(t.dir.File("(Unknown)-TraceFile.TXT")));
  EXPECT_TRUE(testing::Exists(t.dir.File("(Unknown)-TDACLI-TraceFile.TXT")));
  EXPECT_TRUE(Has(MessagesOf(t, "(Unknown)"), "Trace in TDACLI: Set Local IP to: (Unknown)"));
}

TEST(DetermineLocalIP, AdaptersWithoutUsableAddressGiveUnknown) {
  TestAgent t;
  t.host.adapters = {{"0.0.0.0"}, {"fe80::1"}, {}};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "(Unknown)");
}

TEST(DetermineLocalIP, MaskAfterLoginChangesTheAddressOnTheNextRun) {
  TestAgent t;
  t.host.adapters = {{"10.0.0.7"}, {"192.168.5.20"}};
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "10.0.0.7");
  WriteMask(t, "192.168.5.");
  DetermineLocalIP(*t);
  EXPECT_EQ(t->local_ip, "192.168.5.20");
}

// ---------------------------------------------------------------- mask file and matching

TEST(ReadIPMask, LastIPMaskLineWinsWithExactKey) {
  TestAgent t;
  const std::string path = t.dir.File("TDIPMASK.INI");
  testing::WriteFile(path, "[Config]\r\nIPMask=10.\r\nipmask=11.\r\nIPMask =12.\r\nIPMask=\r\nIPMask=13.,14.\r\n");
  EXPECT_EQ(ReadIPMask(path), "13.,14.");
}

TEST(ReadIPMask, EmptyValueDoesNotClearAnEarlierOne) {
  EXPECT_EQ(ParseIPMask("IPMask=10.\r\nIPMask=\r\n"), "10.");
}

TEST(ReadIPMask, MissingFileGivesEmptyText) {
  TestAgent t;
  EXPECT_EQ(ReadIPMask(t.dir.File("TDIPMASK.INI")), "");
}

TEST(ReadIPMask, ValueKeepsBlanksAndEqualsSigns) {
  EXPECT_EQ(ParseIPMask("IPMask= 10.=x \n"), " 10.=x ");
}

TEST(MatchesIPMask, SubstringAnywhereNotPrefix) {
  EXPECT_TRUE(MatchesIPMask("192.10.1.5", "10.1"));
  EXPECT_TRUE(MatchesIPMask("10.1.2.3", "172.16.,10.1."));
  EXPECT_FALSE(MatchesIPMask("10.2.2.3", "172.16.,10.1."));
}

TEST(MatchesIPMask, EmptyMaskAndEmptyPiecesMatchNothing) {
  EXPECT_FALSE(MatchesIPMask("10.0.0.1", ""));
  EXPECT_FALSE(MatchesIPMask("10.0.0.1", ",,"));
  EXPECT_TRUE(MatchesIPMask("10.0.0.1", ",,10.0."));
}

TEST(MatchesIPMask, CaseSensitive) {
  EXPECT_FALSE(MatchesIPMask("wks-0042", "WKS"));
  EXPECT_TRUE(MatchesIPMask("WKS-0042", "WKS"));
}

TEST(LooksLikeIPv4, DotAtSecondThirdOrFourthCharacter) {
  EXPECT_TRUE(LooksLikeIPv4("1.2.3.4"));
  EXPECT_TRUE(LooksLikeIPv4("10.0.0.1"));
  EXPECT_TRUE(LooksLikeIPv4("192.168.5.20"));
  EXPECT_TRUE(LooksLikeIPv4("a."));  // only the dot's place counts
  EXPECT_FALSE(LooksLikeIPv4("fe80::1"));
  EXPECT_FALSE(LooksLikeIPv4("2001:db8::1"));
  EXPECT_FALSE(LooksLikeIPv4("1234.5"));
  EXPECT_FALSE(LooksLikeIPv4(".1234"));  // a dot in first place does not count
  EXPECT_FALSE(LooksLikeIPv4(""));
  EXPECT_FALSE(LooksLikeIPv4("1"));
}

// ---------------------------------------------------------------- names and OS code

TEST(LoadComputerNames, TakesTheEightFormats) {
  TestAgent t;
  t.host.names[2] = "";
  t.host.names[7] = "phys.corp.example";
  LoadComputerNames(*t);
  EXPECT_EQ(t->computer_names[0], "WKS-0042");
  EXPECT_EQ(t->computer_names[1], "wks-0042");
  EXPECT_EQ(t->computer_names[2], "");
  EXPECT_EQ(t->computer_names[3], "wks-0042.corp.example");
  EXPECT_EQ(t->computer_names[7], "phys.corp.example");
}

TEST(DetectOSVersion, MapsVersionsToCodes) {
  struct Case {
    unsigned major, minor;
    bool known;
    int code;
  };
  const Case cases[] = {{5, 0, true, 50},  {5, 1, true, 51},  {5, 2, true, 52},  {5, 3, true, 99},
                        {6, 0, true, 60},  {6, 1, true, 61},  {6, 2, true, 62},  {6, 3, true, 63},
                        {6, 4, true, 99},  {10, 0, true, 10}, {10, 7, true, 10}, {11, 0, true, 99},
                        {4, 0, true, 99},  {10, 0, false, 99}};
  for (const Case& c : cases) {
    TestAgent t;
    t->os_code = -1;
    t.host.version = {c.major, c.minor, c.known};
    DetectOSVersion(*t);
    EXPECT_EQ(t->os_code, c.code) << c.major << "." << c.minor << " known=" << c.known;
  }
}

// ---------------------------------------------------------------- the real host

TEST(SystemHostIdentity, RealValuesHaveTheirShape) {
  TestAgent t;
  std::unique_ptr<platform::HostIdentity> host = platform::MakeSystemHostIdentity();
  ASSERT_TRUE(host);
  AgentOptions options;
  options.exe_folder = t.dir.path();
  Agent agent(AgentFacilities{t.clock, *host, t.event_log, t.service_control, t.dialogs, t.service_host, t.http, t.internet}, options);

  LoadComputerNames(agent);
  DetectOSVersion(agent);
  DetermineLocalIP(agent);
  EXPECT_FALSE(agent.computer_names[0].empty());
  EXPECT_LE(agent.computer_names[0].size(), 15u);  // a NetBIOS name
  EXPECT_FALSE(agent.computer_names[1].empty());

  std::vector<std::string> addresses;
  for (const auto& adapter : AdaptersInIndexOrder(host->Adapters()))
    for (const auto& a : adapter.addresses)
      if (LooksLikeIPv4(a) && a != "0.0.0.0") addresses.push_back(a);
  for (const auto& a : addresses) {
    std::vector<std::string> parts;
    ASSERT_EQ(SplitString(a, ".", parts), 4) << a;
    for (int i = 1; i <= 4; ++i) {
      auto v = ToLong(parts[i]);
      ASSERT_TRUE(v.has_value()) << a;
      EXPECT_GE(*v, 0);
      EXPECT_LE(*v, 255);
    }
  }
  if (addresses.empty())
    EXPECT_EQ(agent.local_ip, "(Unknown)");
  else
    EXPECT_EQ(agent.local_ip, addresses.front());

#ifdef _WIN32
  const std::set<int> known = {50, 51, 52, 60, 61, 62, 63, 10};
  EXPECT_EQ(known.count(agent.os_code), 1u) << agent.os_code;
  const std::string windows = GetWindowsFolder(agent);
  ASSERT_FALSE(windows.empty());
  EXPECT_EQ(windows.back(), '\\');
#else
  EXPECT_EQ(agent.os_code, 99);
  EXPECT_EQ(GetWindowsFolder(agent), "");
  for (const auto& adapter : host->Adapters())
    for (const auto& a : adapter.addresses) EXPECT_TRUE(LooksLikeIPv4(a)) << a;
#endif
}

}  // namespace
}  // namespace tdacli
