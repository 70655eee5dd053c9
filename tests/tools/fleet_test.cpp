// The fleet console of agent-explorer: the host list, the output formats, and whole runs against a real
// agent and scripted peers on the agent's own loop (simulated time: time-outs cost no real time).
#include "fleet/fleet.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "seat/explorer.h"
#include "listener/console.h"

namespace tdacli {
namespace {

using namespace explorer::fleet;
using platform::TcpSocket;

std::vector<Host> Hosts(std::string_view list, std::map<std::string, std::string> files = {}) {
  HostSpec r = ParseHostSpec(list, [&](const std::string& path) -> std::optional<std::string> {
    auto it = files.find(path);
    if (it == files.end()) return std::nullopt;
    return it->second;
  });
  EXPECT_TRUE(r.ok) << r.error;
  return r.hosts;
}

std::string SpecError(std::string_view list, std::map<std::string, std::string> files = {}) {
  HostSpec r = ParseHostSpec(list, [&](const std::string& path) -> std::optional<std::string> {
    auto it = files.find(path);
    if (it == files.end()) return std::nullopt;
    return it->second;
  });
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(r.hosts.empty());
  return r.error;
}

std::vector<std::string> Names(const std::vector<Host>& hosts) {
  std::vector<std::string> out;
  for (const Host& h : hosts) out.push_back(h.name + ":" + std::to_string(h.port));
  return out;
}

TEST(FleetHosts, NamesAddressesAndPortsEachAskedOnce) {
  EXPECT_EQ(Names(Hosts("10.1.2.5")), std::vector<std::string>{"10.1.2.5:5002"});
  EXPECT_EQ(Names(Hosts(" 10.1.2.5:6000 , PC-0042.Corp.Example,, pc7:5002,10.1.2.5:5002, pc-0042.corp.example,"
                        "10.1.2.5:6000,PC7")),
            (std::vector<std::string>{"10.1.2.5:6000", "pc-0042.corp.example:5002", "pc7:5002", "10.1.2.5:5002"}));
  EXPECT_EQ(Names(Hosts("localhost:65535,0.0.0.1:1")),
            (std::vector<std::string>{"localhost:65535", "0.0.0.1:1"}));
}

TEST(FleetHosts, BlocksSkipTheirNetworkAndBroadcastAddresses) {
  EXPECT_EQ(Names(Hosts("10.1.2.0/30")), (std::vector<std::string>{"10.1.2.1:5002", "10.1.2.2:5002"}));
  EXPECT_EQ(Names(Hosts("10.1.2.8/31:6000")), (std::vector<std::string>{"10.1.2.8:6000", "10.1.2.9:6000"}));
  EXPECT_EQ(Names(Hosts("10.1.2.7/32")), std::vector<std::string>{"10.1.2.7:5002"});
  const auto c = Hosts("10.1.2.77/24");  // host bits of a block are ignored
  ASSERT_EQ(c.size(), 254u);
  EXPECT_EQ(c.front().name, "10.1.2.1");
  EXPECT_EQ(c.back().name, "10.1.2.254");
  const auto b = Hosts("172.16.0.0/16");
  ASSERT_EQ(b.size(), 65534u);
  EXPECT_EQ(b.front().name, "172.16.0.1");
  EXPECT_EQ(b[255].name, "172.16.1.0");
  EXPECT_EQ(b.back().name, "172.16.255.254");
  // Overlaps and repeats are asked once, in the order first named.
  EXPECT_EQ(Names(Hosts("10.1.2.2,10.1.2.0/30,10.1.2.0/31")),
            (std::vector<std::string>{"10.1.2.2:5002", "10.1.2.1:5002", "10.1.2.0:5002"}));
}

TEST(FleetHosts, HostFilesHoldOneEntryALineWithComments) {
  const std::map<std::string, std::string> files = {
      {"floor3.txt", "# third floor\r\n10.3.0.0/30   # two seats\r\n\r\n  pc-0301:6000\r\n\t\r\npc-0302 #\r\n10.3.0.1"},
      {"empty.txt", "# nothing yet\n\n"}};
  EXPECT_EQ(Names(Hosts("pc-0302,@floor3.txt,@empty.txt,10.9.9.9", files)),
            (std::vector<std::string>{"pc-0302:5002", "10.3.0.1:5002", "10.3.0.2:5002", "pc-0301:6000",
                                      "10.9.9.9:5002"}));
}

TEST(FleetHosts, AMalformedEntryIsNamed) {
  EXPECT_EQ(SpecError("pc1,10.1.2.300"), "--hosts: bad entry \"10.1.2.300\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError("1.2.3"), "--hosts: bad entry \"1.2.3\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError("010.1.1.1"), "--hosts: bad entry \"010.1.1.1\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError("pc 7"), "--hosts: bad entry \"pc 7\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError("-pc7"), "--hosts: bad entry \"-pc7\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError("pc..7"), "--hosts: bad entry \"pc..7\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError("[::1]:5002"), "--hosts: bad entry \"[::1]:5002\" (the port must be a number from 1 to 65535)");
  EXPECT_EQ(SpecError("pc7:0"), "--hosts: bad entry \"pc7:0\" (the port must be a number from 1 to 65535)");
  EXPECT_EQ(SpecError("pc7:65536"), "--hosts: bad entry \"pc7:65536\" (the port must be a number from 1 to 65535)");
  EXPECT_EQ(SpecError("pc7:"), "--hosts: bad entry \"pc7:\" (the port must be a number from 1 to 65535)");
  EXPECT_EQ(SpecError("pc7:+80"), "--hosts: bad entry \"pc7:+80\" (the port must be a number from 1 to 65535)");
  EXPECT_EQ(SpecError(":5002"), "--hosts: bad entry \":5002\" (no host)");
  EXPECT_EQ(SpecError("10.0.0.0/15"), "--hosts: bad entry \"10.0.0.0/15\" (a block may be at most /16)");
  EXPECT_EQ(SpecError("10.0.0.0/33"), "--hosts: bad entry \"10.0.0.0/33\" (not an IPv4 block a.b.c.d/n)");
  EXPECT_EQ(SpecError("10.0.0.0/"), "--hosts: bad entry \"10.0.0.0/\" (not an IPv4 block a.b.c.d/n)");
  EXPECT_EQ(SpecError("pc7/24"), "--hosts: bad entry \"pc7/24\" (not an IPv4 block a.b.c.d/n)");
  EXPECT_EQ(SpecError(std::string("pc\x01\x7f") + '\0'),
            "--hosts: bad entry \"pc\\x01\\x7F\\0\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError(std::string(300, 'a')),
            "--hosts: bad entry \"" + std::string(80, 'a') + "...\" (not an IPv4 address or a host name)");
  // Escapes count towards the 80 characters shown.
  EXPECT_EQ(SpecError(std::string(30, '\x1b')),
            "--hosts: bad entry \"" + [] { std::string e; for (int i = 0; i < 20; ++i) e += "\\x1B"; return e; }() +
                "...\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError(""), "--hosts: no host named");
  EXPECT_EQ(SpecError(" , ,"), "--hosts: no host named");
  EXPECT_EQ(SpecError("@"), "--hosts: bad entry \"@\" (no file name after @)");
  EXPECT_EQ(SpecError("@missing.txt"), "--hosts: cannot read the host file \"missing.txt\"");
  EXPECT_EQ(SpecError("@a.txt", {{"a.txt", "pc1\n# fine\npc2,pc3\n"}}),
            "--hosts: a.txt line 3: bad entry \"pc2,pc3\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError("@a.txt", {{"a.txt", "pc1\r\n@b.txt\r\n"}, {"b.txt", "pc2"}}),
            "--hosts: a.txt line 2: bad entry \"@b.txt\" (a host file cannot name another host file)");
  const std::string long_name = std::string(100, 'f') + "\x1b";
  EXPECT_EQ(SpecError("@" + long_name, {{long_name, "bad host"}}),
            "--hosts: " + std::string(80, 'f') + "... line 1: bad entry \"bad host\" (not an IPv4 address or a host name)");
  EXPECT_EQ(SpecError("@big.txt", {{"big.txt", std::string(kMaxHostFileBytes + 1, '#')}}),
            "--hosts: the host file \"big.txt\" is larger than 16777216 bytes");
}

TEST(FleetHosts, TheNumberOfHostsIsBounded) {
  EXPECT_EQ(Hosts("10.0.0.0/16,10.1.0.0/31").size(), 65536u);
  EXPECT_EQ(SpecError("10.0.0.0/16,10.1.0.0/29"),
            "--hosts: bad entry \"10.1.0.0/29\" (more than 65536 hosts in all)");
  // Repeats cost their expansion too, so a host list cannot make the parser loop for ever.
  std::string list;
  for (int i = 0; i < 17; ++i) list += "10.0.0.0/16,";
  EXPECT_EQ(SpecError(list), "--hosts: bad entry \"10.0.0.0/16\" (more than 1048576 addresses named in all)");
}

// --- output ----------------------------------------------------------------------------------------

TEST(FleetOutput, ControlCharactersAreShownEscaped) {
  EXPECT_EQ(EscapeControls("plain text: é"), "plain text: é");
  EXPECT_EQ(EscapeControls(std::string("a\tb\rc\nd") + '\0' + "\x1b[2J\x7f"), "a\\tb\\rc\\nd\\0\\x1B[2J\\x7F");
}

TEST(FleetOutput, CsvQuotingAndTheFormulaGuard) {
  EXPECT_EQ(CsvField("10.1.1.5"), "10.1.1.5");
  EXPECT_EQ(CsvField(""), "");
  EXPECT_EQ(CsvField("5001,5002,6001,6002"), "\"5001,5002,6001,6002\"");
  EXPECT_EQ(CsvField("say \"hi\""), "\"say \"\"hi\"\"\"");
  EXPECT_EQ(CsvField("=HYPERLINK(\"http://x\")"), "\"'=HYPERLINK(\"\"http://x\"\")\"");
  EXPECT_EQ(CsvField("=1+2"), "'=1+2");
  EXPECT_EQ(CsvField("+4711"), "'+4711");
  EXPECT_EQ(CsvField("-3"), "'-3");
  EXPECT_EQ(CsvField("@SUM(A1)"), "'@SUM(A1)");
  // A computer name that a ';'-separating spreadsheet would split into a formula cell stays one text.
  EXPECT_EQ(CsvField("PC01;=HYPERLINK(\"x\")"), "\"PC01;=HYPERLINK(\"\"x\"\")\"");
  EXPECT_EQ(CsvField("a=b"), "a=b");
  EXPECT_EQ(CsvField("line\r\nbreak"), "line\\r\\nbreak");
  EXPECT_EQ(CsvField(std::string("\n=cmd")), "\\n=cmd");
  Table t{{"host", "port", "value"}, {{"pc1", "5002", "a,b"}, {"pc2", "5002", "=x"}}};
  EXPECT_EQ(FormatCsv(t), "host,port,value\r\npc1,5002,\"a,b\"\r\npc2,5002,'=x\r\n");
}

TEST(FleetOutput, TableColumnsAreAligned) {
  Table t{{"host", "port", "state", "rtt_ms"},
          {{"10.1.1.5", "5002", "ok", "3"}, {"pc-0042", "6000", "error: reply too long", ""}, {"né\n", "1", "x", "12"}}};
  EXPECT_EQ(FormatTable(t),
            "host      port  state                  rtt_ms\n"
            "10.1.1.5  5002  ok                     3\n"
            "pc-0042   6000  error: reply too long\n"
            "né\\n      1     x                      12\n");
}

HostResult Result(const std::string& name, const std::string& state) {
  HostResult r;
  r.host = {name, 5002};
  r.state = state;
  return r;
}

TEST(FleetOutput, SummaryCountsEveryState) {
  Options o;
  std::vector<HostResult> rs;
  for (int i = 0; i < 298; ++i) rs.push_back(Result("a", "ok"));
  for (int i = 0; i < 5; ++i) rs.push_back(Result("b", "refused"));
  for (int i = 0; i < 9; ++i) rs.push_back(Result("c", "timeout"));
  EXPECT_EQ(SummaryLine(o, rs), "312 hosts: 298 ok, 9 timeout, 5 refused");
  EXPECT_FALSE(AllAnswered(rs));
  rs = {Result("a", "ok")};
  EXPECT_EQ(SummaryLine(o, rs), "1 host: 1 ok");
  EXPECT_TRUE(AllAnswered(rs));
  rs = {Result("a", "error: reply too long"), Result("b", "closed"), Result("c", "error: host not found"),
        Result("d", "not-an-agent")};
  EXPECT_EQ(SummaryLine(o, rs), "4 hosts: 2 error, 1 closed, 1 not-an-agent");
}

TEST(FleetOutput, ProgressLine) {
  EXPECT_EQ(ProgressLine({50, 200, 3, 2000}), "50/200 done, 3 failed, 25 hosts/s");
  EXPECT_EQ(ProgressLine({0, 7, 0, 0}), "0/7 done, 0 failed, 0 hosts/s");
}

TEST(FleetOutput, JsonEscapesEverything) {
  Options o;
  o.command = Command::kGetInfo;
  HostResult r = Result("pc1", "ok");
  r.rtt_ms = 4;
  r.has_info = true;
  r.info.computer = std::string("PC\n1\x01") + "\xff";
  r.info.server = "\"10.1.1.5\"";
  std::vector<HostResult> rs = {r, Result("pc2", "timeout")};
  const std::string text = FormatJson(o, rs, "2026-11-14T23:15:02");
  for (char c : text) EXPECT_TRUE(c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7f));
  const auto doc = nlohmann::json::parse(text);
  EXPECT_EQ(doc["command"], "getinfo");
  EXPECT_EQ(doc["time"], "2026-11-14T23:15:02");
  EXPECT_EQ(doc["summary"], nlohmann::json::parse(R"({"hosts": 2, "ok": 1, "timeout": 1})"));
  ASSERT_EQ(doc["hosts"].size(), 2u);
  EXPECT_EQ(doc["hosts"][0]["computer"], "PC\n1\x01\xEF\xBF\xBD");  // the byte that is no UTF-8 replaced
  EXPECT_EQ(doc["hosts"][0]["server"], "\"10.1.1.5\"");
  EXPECT_EQ(doc["hosts"][0]["rtt_ms"], 4);
  EXPECT_EQ(doc["hosts"][1], nlohmann::json::parse(R"({"host": "pc2", "port": 5002, "state": "timeout", "rtt_ms": null})"));
}

// --- the command line ------------------------------------------------------------------------------

Parsed FleetArgs(std::vector<std::string> args) {
  return ParseFleetArguments(args, [](const std::string&) -> std::optional<std::string> { return std::nullopt; });
}

TEST(FleetCommandLine, OptionsAndValues) {
  Parsed p = FleetArgs({"set", "server=10.1.1.9", "--hosts", "pc1", "--hosts=pc2,10.1.2.0/30", "ext=4711",
                        "--parallel", "128", "--timeout=1.5", "--format", "json", "--apply"});
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_EQ(p.options.command, Command::kSet);
  EXPECT_EQ(Names(p.options.hosts),
            (std::vector<std::string>{"pc1:5002", "pc2:5002", "10.1.2.1:5002", "10.1.2.2:5002"}));
  ASSERT_EQ(p.options.values.size(), 2u);
  EXPECT_EQ(p.options.values[0].setting->keyword, "|SETSERVER|");
  EXPECT_EQ(p.options.values[0].value, "10.1.1.9");
  EXPECT_EQ(p.options.values[1].setting->keyword, "|SETEXT|");
  EXPECT_TRUE(p.options.apply);
  EXPECT_EQ(p.options.parallel, 128);
  EXPECT_DOUBLE_EQ(p.options.timeout_seconds, 1.5);
  EXPECT_EQ(p.format, Format::kJson);
  Parsed d = FleetArgs({"getinfo", "--hosts", "pc1"});
  ASSERT_TRUE(d.ok);
  EXPECT_EQ(d.options.parallel, 64);
  EXPECT_DOUBLE_EQ(d.options.timeout_seconds, 5);
  EXPECT_EQ(d.format, Format::kTable);
  EXPECT_FALSE(d.options.apply);
  EXPECT_TRUE(FleetArgs({"--help"}).help);
  for (const char* word : {"--hosts SPEC", "--parallel N", "--timeout SEC", "--format F", "--apply", "@FILE",
                           "a.b.c.d/n[:PORT]", "not-an-agent"})
    EXPECT_NE(FleetUsageText().find(word), std::string::npos) << word;
}

TEST(FleetCommandLine, UsageErrors) {
  auto error = [](std::vector<std::string> args) {
    Parsed p = FleetArgs(std::move(args));
    EXPECT_FALSE(p.ok);
    return p.error;
  };
  EXPECT_EQ(error({}), "fleet needs a command: getinfo, getver or set");
  EXPECT_EQ(error({"getinfo"}), "fleet needs --hosts SPEC");
  EXPECT_EQ(error({"ping", "--hosts", "pc1"}), "unknown fleet command ping (getinfo, getver or set)");
  EXPECT_EQ(error({"getinfo", "x", "--hosts", "pc1"}), "getinfo takes no arguments, not x");
  EXPECT_EQ(error({"getver", "--apply", "--hosts", "pc1"}), "--apply goes with set only");
  EXPECT_EQ(error({"getinfo", "--hosts", "pc1", "--parallel", "1025"}),
            "--parallel: a number of connections from 1 to 1024, not 1025");
  EXPECT_EQ(error({"getinfo", "--hosts", "pc1", "--parallel", "0"}),
            "--parallel: a number of connections from 1 to 1024, not 0");
  EXPECT_EQ(error({"getinfo", "--hosts", "pc1", "--parallel"}), "--parallel: a number of connections from 1 to 1024");
  EXPECT_EQ(error({"getinfo", "--hosts", "pc1", "--timeout", "0"}), "--timeout: a number of seconds up to 3600, not 0");
  EXPECT_EQ(error({"getinfo", "--hosts", "pc1", "--format", "xml"}), "--format: table, csv or json, not xml");
  EXPECT_EQ(error({"getinfo", "--hosts"}), "--hosts needs a SPEC");
  EXPECT_EQ(error({"getinfo", "--hosts", "pc1", "--verbose"}), "unknown option --verbose");
  EXPECT_EQ(error({"getinfo", "--hosts", "10.1.2.0/8"}), "--hosts: bad entry \"10.1.2.0/8\" (a block may be at most /16)");
  EXPECT_EQ(error({"set", "--hosts", "pc1"}),
            "set needs NAME=VALUE (NAME: ext, server, notify, listen, pop4ext, pop4win)");
  EXPECT_EQ(error({"set", "server", "--hosts", "pc1"}), "set: expected NAME=VALUE, got server");
  EXPECT_EQ(error({"set", "colour=red", "--hosts", "pc1"}),
            "set: unknown setting colour (ext, server, notify, listen, pop4ext, pop4win)");
  EXPECT_EQ(error({"set", "ext=1", "ext=2", "--hosts", "pc1"}), "set: ext given twice");
  EXPECT_EQ(error({"set", "ext=", "--hosts", "pc1"}), "set: empty value for ext");
  for (const char* v : {"ext=1;2", "ext=|GETINFO|", "ext=1\n2"})
    EXPECT_EQ(error({"set", v, "--hosts", "pc1"}), "set: the value of ext cannot hold ';', '|' or control characters");
}

TEST(FleetCommandLine, AUsageErrorSendsNothingAndExitsWithTwo) {
  std::string out, err;
  const int code = FleetMain({"getinfo", "--hosts", "127.0.0.1,10.1.2.300"}, out, [&](const std::string& t) { err += t; },
                             false);
  EXPECT_EQ(code, 2);
  EXPECT_EQ(out, "");
  EXPECT_EQ(err,
            "agent-explorer fleet: --hosts: bad entry \"10.1.2.300\" (not an IPv4 address or a host name)\n"
            "(agent-explorer fleet --help shows the usage)\n");
}

// --- whole runs --------------------------------------------------------------------------------------

// A peer on the test's loop that plays a part: greets (or not), answers commands through `answer`,
// and counts the connections it holds.
class Peer {
 public:
  explicit Peer(platform::EventLoop& loop) : loop_(loop), listener_(loop) {
    listener_.SetLocalHost("127.0.0.1");
    listener_.on_connection_request = [this](int64_t id) {
      auto s = std::make_unique<TcpSocket>(loop_);
      if (s->Accept(listener_, id)) return;
      TcpSocket* raw = s.get();
      raw->on_data_arrival = [this, raw](size_t) {
        const std::string command = raw->GetData();
        received.push_back(command);
        if (answer) {
          const std::string a = answer(command);
          if (!a.empty()) raw->SendData(a);
        }
      };
      raw->on_close = [this, raw] {
        raw->Close();
        --open;
      };
      ++accepted;
      max_open = std::max(max_open, ++open);
      if (close_at_once) {
        raw->Close();
        --open;
      } else if (!greeting.empty()) {
        raw->SendData(greeting);
      }
      if (trickle) {
        auto timer = std::make_unique<platform::Timer>(loop_);
        timer->SetInterval(1000);
        timer->on_tick = [raw, this] {
          if (raw->State() == TcpSocket::kConnected) raw->SendData(std::string(1, trickle_text[trickled++ % trickle_text.size()]));
        };
        timer->SetEnabled(true);
        timers_.push_back(std::move(timer));
      }
      sockets_.push_back(std::move(s));
    };
    EXPECT_FALSE(listener_.Listen());
  }
  Host host() const { return {"127.0.0.1", listener_.LocalPort()}; }

  std::string greeting = "|READY|";
  bool close_at_once = false;
  bool trickle = false;  // one byte a second of trickle_text after the greeting
  std::string trickle_text;
  size_t trickled = 0;
  std::function<std::string(const std::string&)> answer;
  std::vector<std::string> received;
  int accepted = 0, open = 0, max_open = 0;

 private:
  platform::EventLoop& loop_;
  TcpSocket listener_;
  std::vector<std::unique_ptr<TcpSocket>> sockets_;
  std::vector<std::unique_ptr<platform::Timer>> timers_;
};

// A port where nothing listens.
uint16_t ClosedPort(platform::EventLoop& loop) {
  TcpSocket probe(loop);
  probe.SetLocalHost("127.0.0.1");
  EXPECT_FALSE(probe.Listen());
  const uint16_t port = probe.LocalPort();
  probe.Close();
  return port;
}

const std::string kInfoReply = std::string("|GETINFO|<PCName>PC-7") + '\0' + ";<NETUsername>jsmith" + '\0' +
                               ";<WinName>jsmith;<Extension>4711;<TD Server>10.1.1.5;<Notification Method>FileMessage;"
                               "<Listening Ports>5001,5002,5003,5004;<Pop4Ext>false;<Pop4Win>false;";

class FleetRun : public testing::ListeningAgent {
 protected:
  Host AgentHost() { return {"127.0.0.1", Port()}; }
  std::vector<HostResult> RunOn(Options o) { return explorer::fleet::Run(t->loop(), o); }
};

TEST_F(FleetRun, GetInfoFromAnAgentAndEveryKindOfFailure) {
  platform::EventLoop& loop = t->loop();
  Peer silent(loop);
  silent.greeting = "";
  Peer wrong(loop);
  wrong.greeting = "SSH-2.0-OpenSSH_9.2\r\n";
  Peer flood(loop);
  flood.answer = [](const std::string&) { return "|GETINFO|<PCName>" + std::string(1 << 20, 'x'); };
  Peer junk(loop);  // a megabyte that is no reply at all is given up at its first byte
  junk.answer = [](const std::string&) { return std::string(1 << 20, 'x'); };
  Peer refusing(loop);
  refusing.close_at_once = true;
  Peer trickler(loop);
  trickler.greeting = "";
  trickler.trickle = true;
  trickler.trickle_text = "|READY|";
  Peer garbled(loop);  // a reply that stops short, or trickles, is cut at the time-out
  garbled.answer = [](const std::string&) { return std::string("|GETINFO|<PCName>half a reply"); };
  Peer slow(loop);
  slow.trickle = true;
  slow.trickle_text = kInfoReply;
  Peer alien(loop);
  alien.answer = [](const std::string&) { return std::string("HTTP/1.0 400 Bad Request\r\n\r\n"); };
  const uint16_t nothing = ClosedPort(loop);

  Options o;
  o.hosts = {AgentHost(),     {"127.0.0.1", nothing}, silent.host(),  wrong.host(), flood.host(),
             refusing.host(), trickler.host(),        garbled.host(), alien.host(),
             junk.host(),     slow.host()};
  const int64_t t0 = t.clock.NowMs();
  const auto rs = RunOn(o);
  ASSERT_EQ(rs.size(), 11u);
  EXPECT_EQ(rs[0].state, "ok");
  EXPECT_GE(rs[0].rtt_ms, 0);
  EXPECT_EQ(rs[0].info.computer, "WKS-0042");
  EXPECT_EQ(rs[0].info.network_user, "jsmith");
  EXPECT_EQ(rs[0].info.current_user, "N/A");
  EXPECT_EQ(rs[0].info.ext, "1234");
  EXPECT_EQ(rs[0].info.server, "127.0.0.1");
  EXPECT_EQ(rs[0].info.notification_method, "FileMessage");
  EXPECT_EQ(rs[0].info.listening_ports, "1,0,2,3");
  EXPECT_EQ(rs[1].state, "refused");
  EXPECT_EQ(rs[2].state, "timeout");
  EXPECT_EQ(rs[3].state, "not-an-agent");
  EXPECT_EQ(rs[4].state, "error: reply too long");
  EXPECT_EQ(rs[5].state, "closed");
  EXPECT_EQ(rs[6].state, "timeout");  // cut at its time-out however it trickles
  EXPECT_EQ(rs[7].state, "timeout");
  EXPECT_EQ(rs[8].state, "error: unexpected reply");
  EXPECT_EQ(rs[9].state, "error: unexpected reply");
  EXPECT_EQ(rs[10].state, "timeout");
  EXPECT_GE(slow.trickled, 4u);
  EXPECT_LE(slow.trickled, 5u);
  for (size_t i = 1; i < rs.size(); ++i) {
    EXPECT_FALSE(rs[i].has_info) << i;
    EXPECT_EQ(rs[i].rtt_ms, -1) << i;
  }
  // All at once: the whole run took one time-out (5 s), not one per silent host.
  EXPECT_LT(t.clock.NowMs() - t0, 6000);
  EXPECT_GE(trickler.trickled, 4u);
  EXPECT_LE(trickler.trickled, 5u);
  EXPECT_EQ(flood.received, std::vector<std::string>{"|GETINFO|"});
  EXPECT_TRUE(wrong.received.empty());  // nothing is sent to a host that did not greet
  EXPECT_TRUE(silent.received.empty());

  const Table table = BuildTable(o, rs);
  EXPECT_EQ(table.columns, (std::vector<std::string>{"host", "port", "state", "rtt_ms", "computer", "current_user", "ext",
                                                     "server", "notification_method", "listening_ports"}));
  EXPECT_EQ(table.rows[0], (std::vector<std::string>{"127.0.0.1", std::to_string(Port()), "ok",
                                                     std::to_string(rs[0].rtt_ms), "WKS-0042", "N/A", "1234",
                                                     "127.0.0.1", "FileMessage", "1,0,2,3"}));
  EXPECT_EQ(table.rows[2], (std::vector<std::string>{"127.0.0.1", std::to_string(silent.host().port), "timeout", "", "",
                                                     "", "", "", "", ""}));
  EXPECT_EQ(SummaryLine(o, rs), "11 hosts: 1 ok, 4 timeout, 3 error, 1 refused, 1 closed, 1 not-an-agent");
}

TEST_F(FleetRun, AtMostParallelConnectionsAtOnce) {
  platform::EventLoop& loop = t->loop();
  std::vector<std::unique_ptr<Peer>> peers;
  Options o;
  o.parallel = 3;
  o.timeout_seconds = 1;
  int open = 0, max_open = 0;
  for (int i = 0; i < 10; ++i) {
    peers.push_back(std::make_unique<Peer>(loop));
    peers.back()->greeting = "";
    o.hosts.push_back(peers.back()->host());
  }
  const int64_t t0 = t.clock.NowMs();
  auto progress = [&](const Progress&) {
    open = 0;
    for (auto& p : peers) open += p->open;
    max_open = std::max(max_open, open);
  };
  const auto rs = explorer::fleet::Run(loop, o, progress, 50);
  for (const auto& r : rs) EXPECT_EQ(r.state, "timeout");
  for (auto& p : peers) EXPECT_EQ(p->accepted, 1);
  EXPECT_LE(max_open, 3);
  EXPECT_GE(max_open, 2);
  // ceil(10 / 3) rounds of one second each.
  EXPECT_GE(t.clock.NowMs() - t0, 4000);
  EXPECT_LT(t.clock.NowMs() - t0, 5000);
}

TEST_F(FleetRun, GetVerAddsTheComponents) {
  Peer old_agent(t->loop());
  old_agent.answer = [](const std::string& c) -> std::string {
    if (c == "|GETINFO|") return kInfoReply;
    return "|GETVER|<Status>Agent Client Components Information:{CRLF}{CRLF}Component name                     "
           "Version       State                 Account{CRLF}{CRLF}Agent Login Service:              2, 9, 0, 1,"
           "[date=2019-03-01],[time=10:00:00],[size=2,048]     RUNNING     LocalSystem{CRLF}TD Server: x{CRLF}"
           "FTP PassiveUseHostAddr: N/A{CRLF}";
  };
  Peer short_report(t->loop());  // a report that stops before its end is cut at the time-out
  short_report.answer = [](const std::string& c) -> std::string {
    if (c == "|GETINFO|") return kInfoReply;
    return "|GETVER|<Status>Agent Client Components Information:{CRLF}{CRLF}";
  };
  Options o;
  o.command = Command::kGetVer;
  o.hosts = {AgentHost(), old_agent.host(), short_report.host()};
  const auto rs = RunOn(o);
  ASSERT_EQ(rs.size(), 3u);
  EXPECT_EQ(rs[2].state, "timeout");
  EXPECT_TRUE(rs[2].has_info);
  EXPECT_TRUE(rs[2].components.empty());
  EXPECT_EQ(rs[0].state, "ok");
  ASSERT_FALSE(rs[0].components.empty());
  EXPECT_EQ(rs[0].components[0].name, "Agent Login Service");
  EXPECT_EQ(rs[0].components[0].version, "Unavailable!");
  EXPECT_EQ(rs[0].components.back().name, "Agent Client FTP Control");
  EXPECT_EQ(rs[1].state, "ok");
  EXPECT_EQ(rs[1].info.computer, "PC-7");
  ASSERT_EQ(rs[1].components.size(), 1u);
  EXPECT_EQ(rs[1].components[0].version, "2, 9, 0, 1");
  EXPECT_EQ(rs[1].components[0].state, "RUNNING");
  const Table table = BuildTable(o, rs);
  ASSERT_GT(table.columns.size(), 11u);
  EXPECT_EQ(table.columns[10], "Agent Login Service");
  EXPECT_EQ(table.columns[11], "Agent Login Service state");
  EXPECT_EQ(table.rows[0][10], "Unavailable!");
  EXPECT_EQ(table.rows[1][10], "2, 9, 0, 1");
  EXPECT_EQ(table.rows[1][11], "RUNNING");
  const auto doc = nlohmann::json::parse(FormatJson(o, rs, "2026-11-14T23:15:02"));
  EXPECT_EQ(doc["hosts"][1]["components"],
            nlohmann::json::parse(R"([{"name": "Agent Login Service", "version": "2, 9, 0, 1", "state": "RUNNING"}])"));
  EXPECT_EQ(doc["hosts"][0]["components"][0],
            nlohmann::json::parse(R"({"name": "Agent Login Service", "version": "Unavailable!", "state": null})"));
}

// Hosts that each make up component names of their own cannot multiply the table: the first
// kMaxComponentColumns names get columns, the rest are counted (and stay in every host's JSON).
TEST(FleetOutput, ComponentColumnsAreBoundedHoweverManyNamesTheHostsMakeUp) {
  Options o;
  o.command = Command::kGetVer;
  std::vector<HostResult> results(50);
  for (size_t h = 0; h < results.size(); ++h) {
    results[h].host = {"10.0.0." + std::to_string(h + 1), 5002};
    results[h].state = "ok";
    for (size_t c = 0; c < kMaxComponents; ++c)
      results[h].components.push_back({"h" + std::to_string(h) + "-c" + std::to_string(c), "1", ""});
  }
  Options info = o;
  info.command = Command::kGetInfo;
  const size_t fixed = BuildTable(info, results).columns.size();
  const Table t = BuildTable(o, results);
  ASSERT_EQ(t.columns.size(), fixed + kMaxComponentColumns);
  EXPECT_EQ(t.columns[fixed], "h0-c0");
  EXPECT_EQ(t.columns.back(), "h1-c35");
  EXPECT_EQ(t.names_left_out, 50 * kMaxComponents - kMaxComponentColumns);
  ASSERT_EQ(t.rows.size(), 50u);
  EXPECT_EQ(t.rows[0][fixed], "1");
  EXPECT_EQ(t.rows[2][fixed], "");
  for (const auto& row : t.rows) EXPECT_EQ(row.size(), t.columns.size());
  const nlohmann::json j = nlohmann::json::parse(FormatJson(o, results, "2026-11-25T08:00:00"));
  EXPECT_EQ(j.dump().find("h49-c63") != std::string::npos, true);
}

TEST(FleetReport, ComponentRows) {
  const std::string report =
      "|GETVER|<Status>Agent Client Components Information:{CRLF}{CRLF}Component name                     Version    "
      "   State                 Account{CRLF}{CRLF}Agent Login Service:              3, 0, 0, 7,[date=2026-11-01],"
      "[time=10:11:12],[size=3,072]     RUNNING     LocalSystem{CRLF}Screen Capture Service : Unavailable!{CRLF}"
      "Media Transfer Service:           2, 1, 0, 15,[date=2026-10-01],[time=09:00:00],[size=15,872]     STOPPED     "
      "{CRLF}Live Monitor Service:   Unavailable!{CRLF}{CRLF}System Event Detector: N/A{CRLF}Web Cam Control: 1.2.3.4."
      "[date=2026-01-01].[time=01:02:03].[size=1,024]{CRLF}Agent Client Remote IP Port: 5020{CRLF}{CRLF} - - - - - - -"
      " - - - - - - - : {CRLF}Agent Client FTP Control: Unavailable!{CRLF}TD Server: 10.1.1.5{CRLF}";
  const auto c = ParseComponents(report);
  ASSERT_EQ(c.size(), 8u);
  auto row = [&](size_t i) { return c[i].name + "|" + c[i].version + "|" + c[i].state; };
  EXPECT_EQ(row(0), "Agent Login Service|3, 0, 0, 7|RUNNING");
  EXPECT_EQ(row(1), "Screen Capture Service|Unavailable!|");
  EXPECT_EQ(row(2), "Media Transfer Service|2, 1, 0, 15|STOPPED");
  EXPECT_EQ(row(3), "Live Monitor Service|Unavailable!|");
  EXPECT_EQ(row(4), "System Event Detector|N/A|");
  EXPECT_EQ(row(5), "Web Cam Control|1.2.3.4.[date=2026-01-01].[time=01:02:03].[size=1,024]|");
  EXPECT_EQ(row(6), "Agent Client Remote IP Port|5020|");
  EXPECT_EQ(row(7), "Agent Client FTP Control|Unavailable!|");
  EXPECT_TRUE(ParseComponents("|GETINFO|x").empty());
}

TEST_F(FleetRun, SetShowsTheChangeAndAppliesItOnlyWhenAsked) {
  Options o;
  o.command = Command::kSet;
  o.hosts = {AgentHost()};
  o.values = {{FindSetting("server"), "10.9.8.7"}, {FindSetting("notify"), "FileMessage"}, {FindSetting("ext"), "4711"}};
  auto rs = RunOn(o);
  ASSERT_EQ(rs.size(), 1u);
  EXPECT_EQ(rs[0].state, "ok");
  ASSERT_EQ(rs[0].sets.size(), 3u);
  EXPECT_EQ(rs[0].sets[0].current, "127.0.0.1");
  EXPECT_EQ(rs[0].sets[0].result, "would change");
  EXPECT_EQ(rs[0].sets[1].current, "FileMessage");
  EXPECT_EQ(rs[0].sets[1].result, "unchanged");
  EXPECT_EQ(rs[0].sets[2].result, "would change");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), testing::SettingsFile());
  EXPECT_EQ(SummaryLine(o, rs), "1 host: 1 ok; 2 would change, 1 unchanged");
  // The run ends only once the agent has taken in the console's departure, so the next run's
  // connection cannot be closed by that late close.
  listener::CommandListener& l = listener::ListenerOf(*t);
  EXPECT_EQ(l.ListenConnectionIndex, 1);
  EXPECT_EQ(l.ElementState(1), platform::TcpSocket::kClosed);

  o.apply = true;
  rs = RunOn(o);
  EXPECT_EQ(rs[0].state, "ok");
  EXPECT_EQ(rs[0].sets[0].result, "changed");
  EXPECT_EQ(rs[0].sets[1].result, "unchanged");
  EXPECT_EQ(rs[0].sets[2].result, "changed");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), testing::SettingsFile("4711", "10.9.8.7"));
  EXPECT_EQ(SummaryLine(o, rs), "1 host: 1 ok; 2 changed, 1 unchanged");
  EXPECT_TRUE(AllAnswered(rs));
  const Table table = BuildTable(o, rs);
  EXPECT_EQ(table.columns,
            (std::vector<std::string>{"host", "port", "state", "rtt_ms", "setting", "current", "new", "result"}));
  ASSERT_EQ(table.rows.size(), 3u);
  EXPECT_EQ(table.rows[0][4] + "|" + table.rows[0][5] + "|" + table.rows[0][6] + "|" + table.rows[0][7],
            "server|127.0.0.1|10.9.8.7|changed");
  const auto doc = nlohmann::json::parse(FormatJson(o, rs, "2026-11-14T23:15:02"));
  EXPECT_EQ(doc["command"], "set");
  EXPECT_EQ(doc["apply"], true);
  EXPECT_EQ(doc["summary"], nlohmann::json::parse(R"({"hosts": 1, "ok": 1, "changed": 2, "unchanged": 1})"));
  EXPECT_EQ(doc["hosts"][0]["settings"], nlohmann::json::parse(R"([
      {"setting": "server", "current": "127.0.0.1", "new": "10.9.8.7", "result": "changed"},
      {"setting": "notify", "current": "FileMessage", "new": "FileMessage", "result": "unchanged"},
      {"setting": "ext", "current": "1234", "new": "4711", "result": "changed"}])"));

  // Asked again, nothing is left to change and nothing is sent.
  rs = RunOn(o);
  EXPECT_EQ(rs[0].sets[0].result, "unchanged");
  EXPECT_EQ(rs[0].sets[2].result, "unchanged");
}

TEST_F(FleetRun, ASetThatWasNotStoredFails) {
  platform::EventLoop& loop = t->loop();
  Peer stubborn(loop);  // answers every SET with the old value, as an agent whose save failed
  stubborn.answer = [](const std::string& c) -> std::string {
    if (c == "|GETINFO|") return kInfoReply;
    if (c.rfind("|SETSERVER|", 0) == 0) return "|SETSERVER|<TD Server>10.1.1.5;";
    if (c.rfind("|SETPOP4EXT|", 0) == 0) return "|SETPOP4EXT|<Pop4Ext>Failed;";
    return "";
  };
  Peer mute(loop);  // answers GETINFO only
  mute.answer = [](const std::string& c) -> std::string { return c == "|GETINFO|" ? kInfoReply : ""; };
  Peer silent(loop);
  silent.greeting = "";
  Options o;
  o.command = Command::kSet;
  o.apply = true;
  o.hosts = {stubborn.host(), mute.host(), silent.host()};
  o.values = {{FindSetting("server"), "10.9.8.7"}, {FindSetting("ext"), "4711"}, {FindSetting("pop4ext"), "true"}};
  const auto rs = RunOn(o);
  EXPECT_EQ(rs[0].state, "ok");
  EXPECT_EQ(rs[0].sets[0].current, "10.1.1.5");
  EXPECT_EQ(rs[0].sets[0].result, "failed: |SETSERVER|<TD Server>10.1.1.5;");
  EXPECT_EQ(rs[0].sets[1].result, "unchanged");
  EXPECT_EQ(rs[0].sets[2].result, "failed: |SETPOP4EXT|<Pop4Ext>Failed;");
  EXPECT_EQ(stubborn.received,
            (std::vector<std::string>{"|GETINFO|", "|SETSERVER|10.9.8.7;", "|SETPOP4EXT|true;"}));
  EXPECT_EQ(rs[1].state, "timeout");
  EXPECT_EQ(rs[1].sets[0].result, "failed: no reply");
  EXPECT_EQ(rs[1].sets[1].result, "unchanged");
  EXPECT_EQ(rs[1].sets[2].result, "failed: not sent");
  EXPECT_EQ(mute.received, (std::vector<std::string>{"|GETINFO|", "|SETSERVER|10.9.8.7;"}));
  EXPECT_EQ(rs[2].state, "timeout");
  EXPECT_EQ(rs[2].sets[0].result, "");
  EXPECT_EQ(rs[2].sets[0].current, "");
  EXPECT_TRUE(silent.received.empty());
  EXPECT_FALSE(AllAnswered(rs));
  EXPECT_EQ(SummaryLine(o, rs), "3 hosts: 1 ok, 2 timeout; 2 unchanged, 4 failed");
}

}  // namespace
}  // namespace tdacli
