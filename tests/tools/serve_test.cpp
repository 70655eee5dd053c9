// The web console of agent-explorer: its command line, the parsers of what requests carry, the floor
// (common values, drift, the JSON and the exports) and the audit log. The whole console over real
// agents and in a browser: tests/e2e/serve_linux.sh (E2E.ServeApiLinux, E2E.ServeBrowserLinux).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "support/test_agent.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/tcp_socket.h"
#include "web/audit.h"
#include "web/engine.h"
#include "web/floor.h"
#include "web/requests.h"
#include "web/serve.h"

namespace tdacli {
namespace {

using namespace explorer;
using namespace explorer::web;
using Json = nlohmann::json;

ServeParsed Parse(std::vector<std::string> args, std::map<std::string, std::string> files = {}) {
  return ParseServeArguments(args, [&](const std::string& path) -> std::optional<std::string> {
    auto it = files.find(path);
    if (it == files.end()) return std::nullopt;
    return it->second;
  });
}

std::string ParseError(std::vector<std::string> args) {
  ServeParsed p = Parse(std::move(args));
  EXPECT_FALSE(p.ok);
  return p.error;
}

// --- the command line ----------------------------------------------------------------------------

TEST(ServeCommandLine, OptionsAndDefaults) {
  ServeParsed p = Parse({"--hosts", "10.1.2.0/30,@floor.txt", "--hosts=pc7:6000"}, {{"floor.txt", "pc9\n"}});
  ASSERT_TRUE(p.ok) << p.error;
  const ServeOptions& o = p.options;
  ASSERT_EQ(o.hosts.size(), 4u);
  EXPECT_EQ(o.hosts[3], (fleet::Host{"pc7", 6000}));
  EXPECT_EQ(o.listen_host, "127.0.0.1");
  EXPECT_EQ(o.listen_port, 8080);
  EXPECT_EQ(o.parallel, 64);
  EXPECT_EQ(o.timeout_seconds, 5);
  EXPECT_EQ(o.refresh_every_seconds, 0);
  EXPECT_EQ(o.audit_log, "agent-explorer-audit.jsonl");
  p = Parse({"--hosts", "pc1", "--listen", "127.0.0.2:0", "--parallel", "200", "--timeout", "1.5", "--refresh-every",
             "300", "--audit-log", "a.jsonl", "--token-file", "t.txt", "--tls-cert", "c.pem", "--tls-key", "k.pem"});
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_EQ(p.options.listen_host, "127.0.0.2");
  EXPECT_EQ(p.options.listen_port, 0);
  EXPECT_EQ(p.options.parallel, 200);
  EXPECT_EQ(p.options.timeout_seconds, 1.5);
  EXPECT_EQ(p.options.refresh_every_seconds, 300);
  EXPECT_EQ(p.options.audit_log, "a.jsonl");
  EXPECT_EQ(p.options.token_file, "t.txt");
  EXPECT_EQ(p.options.tls_cert, "c.pem");
  EXPECT_EQ(p.options.tls_key, "k.pem");
  EXPECT_TRUE(Parse({"--help"}).help);
  EXPECT_NE(ServeUsageText().find("Each scan briefly takes each agent's one"), std::string::npos);
}

TEST(ServeCommandLine, UsageErrors) {
  EXPECT_EQ(ParseError({}), "serve needs --hosts SPEC");
  EXPECT_EQ(ParseError({"--hosts", "10.1.0.0/15"}), "--hosts: bad entry \"10.1.0.0/15\" (a block may be at most /16)");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "--refresh-every", "299"}),
            "--refresh-every: a number of seconds, at least 300 (a scan takes every agent's console connection for a "
            "moment)");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "--listen", "pc1:80"}),
            "--listen: ADDR:PORT with an IPv4 address, not pc1:80");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "--listen", "127.0.0.1:65536"}), "--listen: a port from 0 to 65535, not 65536");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "--listen", "8080"}), "--listen: ADDR:PORT with an IPv4 address");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "--parallel", "0"}), "--parallel: a number of connections from 1 to 1024");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "--timeout", "-1"}), "--timeout: a number of seconds up to 3600");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "--bogus"}), "unknown option --bogus");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "getinfo"}), "serve takes no arguments but options, not getinfo");
  EXPECT_EQ(ParseError({"--hosts", "pc1", "--audit-log"}), "--audit-log needs a FILE");
}

TEST(ServeCommandLine, BeyondLoopbackOnlyWithTls) {
  ServeOptions o;
  EXPECT_EQ(ListenProblem(o), "");
  o.listen_host = "127.9.9.9";
  EXPECT_EQ(ListenProblem(o), "");
  o.listen_host = "0.0.0.0";
#ifdef _WIN32
  EXPECT_EQ(ListenProblem(o),
            "--listen 0.0.0.0:8080 is beyond loopback: this build serves plain HTTP, on loopback (127.0.0.0/8) only");
  o.listen_host = "127.0.0.1";
  o.tls_cert = "c.pem";
  o.tls_key = "k.pem";
  EXPECT_EQ(ListenProblem(o), "this build serves no HTTPS: --tls-cert and --tls-key are for the Linux console");
#else
  EXPECT_EQ(ListenProblem(o),
            "--listen 0.0.0.0:8080 is beyond loopback: the console can change every seat's settings, so there it "
            "serves HTTPS only (give --tls-cert and --tls-key)");
  o.tls_cert = "c.pem";
  EXPECT_NE(ListenProblem(o), "");
  o.tls_key = "k.pem";
  EXPECT_EQ(ListenProblem(o), "");
  o.listen_host = "127.0.0.1";
  o.tls_key.clear();
  EXPECT_EQ(ListenProblem(o), "--tls-cert and --tls-key go together");
#endif
  EXPECT_TRUE(IsLoopback("127.0.0.1"));
  EXPECT_FALSE(IsLoopback("128.0.0.1"));
  EXPECT_FALSE(IsLoopback("127.0.0.1x"));
  EXPECT_FALSE(IsLoopback("localhost"));
}

TEST(ServeToken, MadeRandomOrReadFromTheFile) {
  const std::string a = NewToken(), b = NewToken();
  EXPECT_EQ(a.size(), 64u);  // 256 bits
  EXPECT_EQ(a.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(a, b);
  EXPECT_EQ(TokenFromFile("  " + a + " \r\nsecond line"), a);
  EXPECT_EQ(TokenFromFile(std::string(32, 'x')), std::string(32, 'x'));
  EXPECT_EQ(TokenFromFile(std::string(31, 'x')), "");  // too short to be guessed never
  EXPECT_EQ(TokenFromFile(std::string(257, 'x')), "");
  EXPECT_EQ(TokenFromFile(std::string(40, 'x') + "<"), "");
  EXPECT_EQ(TokenFromFile(""), "");
}

// --- what requests carry -------------------------------------------------------------------------

TEST(ServeRequests, HostOfAPath) {
  EXPECT_EQ(ParseHostKey("127.0.0.1:5002"), "127.0.0.1:5002");
  EXPECT_EQ(ParseHostKey("pc-0042.corp.example:65535"), "pc-0042.corp.example:65535");
  for (const std::string& bad : std::vector<std::string>{"", ":5002", "pc1", "pc1:", "pc1:0", "pc1:05002", "pc1:65536", "pc1:50a2", "../x:1", "a/b:1",
                          "pc 1:5002", std::string("pc\0:1", 5), "%2e%2e:1", std::string(254, 'a') + ":1"})
    EXPECT_EQ(ParseHostKey(bad), std::nullopt) << bad;
}

TEST(ServeRequests, HeadLengthAndRangeHeaders) {
  EXPECT_EQ(HeadLength("GET / HTTP/1.1\r\nHost: h\r\n\r\nbody"), 27u);
  EXPECT_EQ(HeadLength("GET / HTTP/1.1\nHost: h\n\nbody"), 24u);
  EXPECT_EQ(HeadLength("GET / HTTP/1.1\nHost: h\n\r\n\n"), 25u);
  EXPECT_EQ(HeadLength("GET / HTTP/1.1\r\nHost: h\r\n"), std::string_view::npos);
  EXPECT_EQ(HeadLength(""), std::string_view::npos);
  // Only headers: the request line is none, and a body keeps its bytes.
  std::string h = "Range: / HTTP/1.1\r\nrange: bytes=0-1\r\nX-Range: 1\r\nRANGE:2\r\nRang: 3\r\n\r\nRange: body";
  RenameRangeHeaders(h, HeadLength(h));
  EXPECT_EQ(h, "Range: / HTTP/1.1\r\nXange: bytes=0-1\r\nX-Range: 1\r\nXANGE:2\r\nRang: 3\r\n\r\nRange: body");
}

TEST(ServeRequests, SetBody) {
  SetRequest r = ParseSetRequest(
      R"({"hosts": ["pc1:5002", "pc2:5002", "pc1:5002"], "settings": {"server": "10.1.1.9", "ext": "4711"}, "apply": false})");
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.hosts, (std::vector<std::string>{"pc1:5002", "pc2:5002"}));
  ASSERT_EQ(r.values.size(), 2u);  // in fleet's order of the settings
  EXPECT_EQ(r.values[0].setting->word, "ext");
  EXPECT_EQ(r.values[0].value, "4711");
  EXPECT_EQ(r.values[1].setting->word, "server");
  EXPECT_FALSE(r.apply);
  const std::string preview(64, 'a');
  r = ParseSetRequest(R"({"hosts": ["pc1:5002"], "settings": {"listen": "5001,5002,6001,6002"}, "apply": true, "preview": ")" +
                      preview + "\"}");
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_TRUE(r.apply);
  EXPECT_EQ(r.preview, preview);

  auto refused = [](const std::string& body) {
    SetRequest x = ParseSetRequest(body);
    EXPECT_FALSE(x.ok) << body;
    return x.error;
  };
  EXPECT_EQ(refused("nope"), "the body is no JSON object");
  EXPECT_EQ(refused(R"(["pc1:5002"])"), "the body is no JSON object");
  EXPECT_EQ(refused(R"({"hosts": [], "settings": {"ext": "1"}})"), "\"hosts\" must be a list of hosts");
  EXPECT_EQ(refused(R"({"hosts": [5002], "settings": {"ext": "1"}})"), "\"hosts\" must be a list of hosts");
  EXPECT_EQ(refused(R"({"hosts": ["pc1/x:5002"], "settings": {"ext": "1"}})"), "not a host: \"pc1/x:5002\"");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {}})"), "\"settings\" must name at least one setting");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"ext": 1}})"), "the value of a setting must be a string");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"ext": "1|SETSERVER|x"}})"),
            "set: the value of ext cannot hold ';', '|' or control characters");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"ext": "1\r\n"}})"),
            "set: the value of ext cannot hold ';', '|' or control characters");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"ext": ""}})"), "set: empty value for ext");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"Ext": "1"}})"),
            "set: unknown setting Ext (ext, server, notify, listen, pop4ext, pop4win)");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"ext": "1"}, "apply": "yes"})"),
            "\"apply\" must be true or false");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"ext": "1"}, "apply": true})"),
            "apply needs the \"preview\" it applies");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"ext": "1"}, "preview": "short"})"), "\"preview\" is no preview");
  EXPECT_EQ(refused(R"({"hosts": ["pc1:5002"], "settings": {"ext": "1"}, "more": 1})"), "unknown field \"more\"");
  EXPECT_EQ(refused(std::string(100000, '[')), "the body nests too deeply");
  EXPECT_EQ(refused(R"({"hosts": [[[["pc1:5002"]]]], "settings": {"ext": "1"}})"), "the body nests too deeply");
  // Brackets inside strings are no nesting.
  EXPECT_EQ(refused(R"({"hosts": ["[[[[[[:1"], "settings": {"ext": "1"}})"), "not a host: \"[[[[[[:1\"");
  EXPECT_EQ(refused(std::string(kMaxBodyBytes + 1, ' ')), "the body is larger than 1048576 bytes");
}

TEST(ServeRequests, CookiesTokensOrigins) {
  EXPECT_EQ(CookieValue("a=1; tdx_session=abc; b=2", "tdx_session"), "abc");
  EXPECT_EQ(CookieValue("tdx_session=abc", "tdx_session"), "abc");
  EXPECT_EQ(CookieValue("xtdx_session=abc; tdx_sessionx=d", "tdx_session"), "");
  EXPECT_EQ(CookieValue("", "tdx_session"), "");
  EXPECT_EQ(BearerToken("Bearer abc"), "abc");
  EXPECT_EQ(BearerToken("bearer   abc  "), "abc");
  EXPECT_EQ(BearerToken("Basic abc"), "");
  EXPECT_EQ(BearerToken("Bearer"), "");
  EXPECT_TRUE(IsTokenText(std::string(32, 'a')));
  EXPECT_TRUE(IsTokenText("0123456789abcdefABCDEF._~-0123456"));
  EXPECT_FALSE(IsTokenText(std::string(31, 'a')));
  EXPECT_FALSE(IsTokenText(std::string(40, 'a') + ";"));
  EXPECT_TRUE(SameSecret("abc", "abc"));
  EXPECT_FALSE(SameSecret("abc", "abd"));
  EXPECT_FALSE(SameSecret("abc", "abcd"));
  EXPECT_TRUE(SameOrigin("http://127.0.0.1:8080", "http", "127.0.0.1:8080"));
  EXPECT_TRUE(SameOrigin("https://Console.Corp:8443", "https", "console.corp:8443"));
  EXPECT_FALSE(SameOrigin("http://127.0.0.1:8080", "https", "127.0.0.1:8080"));
  EXPECT_FALSE(SameOrigin("http://evil.example", "http", "127.0.0.1:8080"));
  EXPECT_FALSE(SameOrigin("http://127.0.0.1:80801", "http", "127.0.0.1:8080"));
  EXPECT_FALSE(SameOrigin("null", "http", "127.0.0.1:8080"));
  EXPECT_FALSE(SameOrigin("", "http", ""));
}

// --- the floor -----------------------------------------------------------------------------------

fleet::HostResult Seat(const std::string& name, const std::string& server, const std::string& version,
                       int64_t finished_ms = 1000) {
  fleet::HostResult r;
  r.host = {name, 5002};
  r.state = "ok";
  r.rtt_ms = 3;
  r.has_info = true;
  r.info.computer = name;
  r.info.current_user = "user-" + name;
  r.info.ext = "4711";
  r.info.server = server;
  r.info.notification_method = "ServiceMessage";
  r.info.listening_ports = "5001,5002,6001,6002";
  r.components = {{"Agent Login Service", version, "RUNNING"}, {"Update Manager", "1, 0, 0, 1", ""}};
  r.finished_ms = finished_ms;
  return r;
}

fleet::HostResult Failed(const std::string& name, const std::string& state) {
  fleet::HostResult r;
  r.host = {name, 5002};
  r.state = state;
  return r;
}

TEST(ServeFloor, CommonValuesAndDrift) {
  std::vector<fleet::HostResult> rs = {Seat("pc1", "10.1.1.5", "3, 0, 0, 7"), Seat("pc2", "10.1.1.5", "3, 0, 0, 7"),
                                       Seat("pc3", "10.1.1.9", "2, 1, 0, 15"), Failed("pc4", "refused")};
  FloorValues f = CommonValues(rs);
  EXPECT_EQ(f.server, "10.1.1.5");
  EXPECT_EQ(f.listening_ports, "5001,5002,6001,6002");
  EXPECT_EQ(f.components.at("Agent Login Service"), "3, 0, 0, 7");
  EXPECT_EQ(Drift(rs[0], f), std::vector<std::string>{});
  EXPECT_EQ(Drift(rs[2], f), (std::vector<std::string>{"server", "component:Agent Login Service"}));
  EXPECT_EQ(Drift(rs[3], f), std::vector<std::string>{});  // nothing known, nothing differs
  EXPECT_EQ(AgentVersion(rs[2]), "2, 1, 0, 15");
  EXPECT_EQ(AgentVersion(rs[3]), "");
  // A tie has no most common value, and so no drift.
  rs = {Seat("pc1", "10.1.1.5", "3"), Seat("pc2", "10.1.1.6", "4")};
  f = CommonValues(rs);
  EXPECT_EQ(f.server, "");
  EXPECT_EQ(f.components.count("Agent Login Service"), 0u);
  EXPECT_EQ(f.components.at("Update Manager"), "1, 0, 0, 1");
  EXPECT_EQ(Drift(rs[1], f), std::vector<std::string>{});
}

TEST(ServeFloor, RowsJsonAndTheTimeOfEachAnswer) {
  std::vector<fleet::HostResult> rs = {Seat("pc1", "10.1.1.5", "3"), Seat("pc2", "10.1.1.5", "3", 62500),
                                       Failed("pc3", "error: reply too long"), Failed("pc4", "timeout")};
  rs[1].info.computer = "<img src=x onerror=alert(1)>";
  rs[1].info.current_user = std::string("bad\xff\x01", 5);
  auto floor = BuildFloor(rs, 7, {2026, 11, 14, 23, 59, 30}, 500);
  EXPECT_EQ(floor->time, "2026-11-14T23:59:30");
  EXPECT_EQ(floor->answered[0], "2026-11-14T23:59:30");
  EXPECT_EQ(floor->answered[1], "2026-11-15T00:00:32");
  EXPECT_EQ(floor->answered[3], "");
  EXPECT_EQ(floor->rows.at("pc2:5002"), 1u);
  ScanStatus status;
  status.scans = 7;
  status.done = status.total = 4;
  status.failed = 2;
  const Json j = Json::parse(HostsJson(*floor, status));
  EXPECT_EQ(j["scan"], Json::parse(R"({"running":false,"done":4,"total":4,"failed":2,"scans":7})"));
  EXPECT_EQ(j["counts"], Json::parse(R"({"ok":2,"refused":0,"timeout":1,"closed":0,"not-an-agent":0,"error":1,"pending":0})"));
  ASSERT_EQ(j["hosts"].size(), 4u);
  EXPECT_EQ(j["hosts"][1]["computer"], "<img src=x onerror=alert(1)>");  // text; the page sets it as text
  EXPECT_EQ(j["hosts"][1]["current_user"], "bad\xef\xbf\xbd\x01");        // a byte that is no UTF-8 replaced
  EXPECT_EQ(j["hosts"][2], Json::parse(R"({"host":"pc3:5002","state":"error: reply too long","category":"error",
      "rtt_ms":null,"computer":"","current_user":"","ext":"","server":"","notification_method":"","listening_ports":"",
      "version":"","time":"","drift":[]})"));
  // ASCII on the wire: every other character escaped.
  const std::string text = HostsJson(*floor, status);
  EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; }));
  const Json seat = Json::parse(SeatJson(*floor, 0));
  EXPECT_EQ(seat["components"][0], Json::parse(R"({"name":"Agent Login Service","version":"3","state":"RUNNING"})"));
  EXPECT_EQ(seat["network_user"], "");
  // Before the first scan every host is pending.
  auto none = BuildFloor({Failed("pc1", "")}, 0, {}, 0);
  EXPECT_EQ(Json::parse(HostsJson(*none, {}))["hosts"][0]["state"], "pending");
}

TEST(ServeFloor, FiltersAndExportsInFleetsFormats) {
  std::vector<fleet::HostResult> rs = {Seat("pc1", "10.1.1.5", "3"), Seat("pc2", "10.1.1.5", "3"),
                                       Seat("pc3", "10.1.1.9", "3"), Failed("pc4", "refused")};
  auto floor = BuildFloor(rs, 1, {2026, 11, 14, 8, 0, 0}, 0);
  EXPECT_EQ(FilterRows(*floor, {}), (std::vector<size_t>{0, 1, 2, 3}));
  EXPECT_EQ(FilterRows(*floor, {"USER-PC2", "", false}), (std::vector<size_t>{1}));
  EXPECT_EQ(FilterRows(*floor, {"", "refused", false}), (std::vector<size_t>{3}));
  EXPECT_EQ(FilterRows(*floor, {"", "", true}), (std::vector<size_t>{2}));
  EXPECT_EQ(FilterRows(*floor, {"10.1.1", "ok", false}), (std::vector<size_t>{0, 1, 2}));
  EXPECT_EQ(FilterRows(*floor, {"nothing", "", false}), std::vector<size_t>{});
  fleet::Options o;
  o.command = fleet::Command::kGetVer;
  o.hosts = {rs[2].host, rs[3].host};
  EXPECT_EQ(ExportCsv(floor, {2, 3}), fleet::FormatCsv(fleet::BuildTable(o, {rs[2], rs[3]})));
  EXPECT_EQ(ExportJson(floor, {2, 3}), fleet::FormatJson(o, {rs[2], rs[3]}, "2026-11-14T08:00:00"));
  // The whole floor, and nothing at all.
  o.hosts.clear();
  for (const fleet::HostResult& r : rs) o.hosts.push_back(r.host);
  EXPECT_EQ(ExportCsv(floor, {0, 1, 2, 3}), fleet::FormatCsv(fleet::BuildTable(o, rs)));
  EXPECT_EQ(ExportJson(floor, {0, 1, 2, 3}), fleet::FormatJson(o, rs, "2026-11-14T08:00:00"));
  o.hosts.clear();
  EXPECT_EQ(ExportCsv(floor, {}), fleet::FormatCsv(fleet::BuildTable(o, {})));
  EXPECT_EQ(ExportJson(floor, {}), fleet::FormatJson(o, {}, "2026-11-14T08:00:00"));
  EXPECT_EQ(ExportJson(floor, {}), "{\n  \"command\": \"getver\",\n  \"time\": \"2026-11-14T08:00:00\",\n"
                                   "  \"summary\": {\n    \"hosts\": 0\n  },\n  \"hosts\": []\n}\n");
}

// --- the engine's queue --------------------------------------------------------------------------

// Requests that talk to agents wait in a queue of kMaxQueuedJobs behind the job in hand; one more is
// refused at once (the HTTP answer is 503) instead of piling up threads and memory behind a slow agent.
TEST(ServeEngine, AJobBeyondTheQueueIsRefusedAtOnce) {
  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);
  // An agent that takes connections and never greets: the job in hand waits for it.
  platform::TcpSocket agent(loop);
  agent.SetLocalHost("127.0.0.1");
  std::vector<std::unique_ptr<platform::TcpSocket>> held;
  int connections = 0;
  agent.on_connection_request = [&](int64_t id) {
    ++connections;
    held.push_back(std::make_unique<platform::TcpSocket>(loop));
    EXPECT_FALSE(held.back()->Accept(agent, id));
  };
  ASSERT_FALSE(agent.Listen());
  const fleet::Host host{"127.0.0.1", agent.LocalPort()};

  Engine engine(Engine::Settings{{host}, 4, 5, 0});
  std::vector<std::thread> callers;
  std::atomic<int> answered{0}, refused{0};
  auto call = [&] {
    callers.emplace_back([&] {
      std::optional<Exchange> x = engine.RunCommand(host, "|GETINFO|", 60);
      ++(x ? answered : refused);
    });
  };
  call();
  ASSERT_TRUE(loop.RunUntil(clock->NowMs() + 20000, [&] { return connections == 1; }));
  for (size_t i = 0; i < kMaxQueuedJobs + 1; ++i) call();
  // The job in hand waits up to 60 s for its greeting; the refusal comes long before it ends.
  const int64_t give_up = clock->NowMs() + 20000;
  while (refused.load() == 0 && clock->NowMs() < give_up) loop.RunFor(10);
  EXPECT_EQ(refused.load(), 1);
  EXPECT_EQ(answered.load(), 0);
  EXPECT_EQ(connections, 1);

  // The agent goes away: every job that got into the queue is served, each with its failure.
  agent.Close();
  held.clear();
  for (std::thread& t : callers) t.join();
  EXPECT_EQ(answered.load(), static_cast<int>(kMaxQueuedJobs) + 1);
  EXPECT_EQ(refused.load(), 1);
}

// --refresh-every: the engine scans by itself at that interval, counted on its own clock from when the
// last scan was due. (The command line refuses less than 300 s; the engine takes any interval.)
TEST(ServeEngine, ScansByItselfAtTheRefreshInterval) {
  auto clock = platform::MakeSystemClock();
  uint16_t nothing_listens = 0;
  {
    platform::EventLoop loop(*clock);
    platform::TcpSocket probe(loop);
    probe.SetLocalHost("127.0.0.1");
    ASSERT_FALSE(probe.Listen());
    nothing_listens = probe.LocalPort();
  }
  Engine engine(Engine::Settings{{{"127.0.0.1", nothing_listens}}, 4, 5, 1});
  std::vector<std::shared_ptr<const Floor>> floors;
  const int64_t give_up = clock->NowMs() + 30000;
  while (floors.size() < 3 && clock->NowMs() < give_up) {
    std::shared_ptr<const Floor> f = engine.floor();
    if (f->scan != 0 && (floors.empty() || floors.back()->scan != f->scan)) floors.push_back(f);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(floors.size(), 3u);
  for (size_t i = 0; i < floors.size(); ++i) {
    EXPECT_EQ(floors[i]->scan, i + 1);
    ASSERT_EQ(floors[i]->results.size(), 1u);
    EXPECT_EQ(floors[i]->results[0].state, "refused");
  }
  // A second apart on the engine's clock: each refresh falls due a second after the last one fell due,
  // and a scan's start stamp follows its due time by the engine thread's own few steps (a busy machine
  // may delay one start, never bring the next one forward), allowed for here.
  for (size_t i = 1; i < floors.size(); ++i)
    EXPECT_GE(floors[i]->started_ms - floors[i - 1]->started_ms, 1000 - 250) << i;
}

// --- the audit log -------------------------------------------------------------------------------

TEST(ServeAudit, OneJsonLineForEveryChangeOnTheDisk) {
  EXPECT_EQ(AuditLine({"2026-11-14T08:00:00", "10.1.9.9", "pc1:5002", "server", "10.1.1.5", "10.1.1.9", "changed"}),
            R"({"time":"2026-11-14T08:00:00","client":"10.1.9.9","host":"pc1:5002","setting":"server","old":"10.1.1.5","new":"10.1.1.9","result":"changed"})"
            "\n");
  EXPECT_EQ(AuditLine({"t", "c", "h", "ext", "a\r\nb", "é", "failed: |SETEXT|<Extension>1;"}),
            R"({"time":"t","client":"c","host":"h","setting":"ext","old":"a\r\nb","new":"\u00e9","result":"failed: |SETEXT|<Extension>1;"})"
            "\n");
  testing::TempDir dir;
  const std::string path = dir.File("audit.jsonl");
  AuditLog log(path);
  std::string error;
  EXPECT_TRUE(log.Writable(error));
  EXPECT_EQ(log.RecentJson(), "[]");
  ASSERT_TRUE(log.Append({{"t1", "c", "h1", "ext", "1", "2", "changed"}, {"t1", "c", "h2", "ext", "1", "2", "changed"}},
                         error));
  ASSERT_TRUE(log.Append({{"t2", "c", "h1", "ext", "2", "3", "failed: no reply"}}, error));
  std::ifstream in(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, AuditLine({"t1", "c", "h1", "ext", "1", "2", "changed"}) +
                      AuditLine({"t1", "c", "h2", "ext", "1", "2", "changed"}) +
                      AuditLine({"t2", "c", "h1", "ext", "2", "3", "failed: no reply"}));
  const Json recent = Json::parse(log.RecentJson());
  ASSERT_EQ(recent.size(), 3u);
  EXPECT_EQ(recent[2]["result"], "failed: no reply");
  // A folder cannot be the log: the console refuses to start rather than change what it cannot record.
  AuditLog folder(dir.path());
  EXPECT_FALSE(folder.Writable(error));
  EXPECT_FALSE(folder.Append({{"t", "c", "h", "ext", "1", "2", "changed"}}, error));
}

TEST(ServeAudit, TheAuditPageShowsTheLastLinesOfABoundedTail) {
  testing::TempDir dir;
  const std::string path = dir.File("audit.jsonl");
  {
    std::ofstream out(path, std::ios::binary);
    out << "not json\n{\"partial\": \n";
    for (size_t i = 0; i < kAuditPageLines + 5; ++i) out << AuditLine({std::to_string(i), "c", "h", "ext", "1", "2", "changed"});
  }
  AuditLog log(path);
  const Json recent = Json::parse(log.RecentJson());
  ASSERT_EQ(recent.size(), kAuditPageLines);
  EXPECT_EQ(recent.front()["time"], "5");
  EXPECT_EQ(recent.back()["time"], std::to_string(kAuditPageLines + 4));
  // A log larger than the tail read: the first line of the tail, cut, is left out.
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const std::string filler = AuditLine({std::string(4000, 'x'), "c", "h", "ext", "1", "2", "changed"});
    for (size_t i = 0; i * filler.size() < kAuditPageBytes + 10000; ++i) out << filler;
  }
  const Json tail = Json::parse(log.RecentJson());
  EXPECT_GT(tail.size(), 0u);
  EXPECT_LE(tail.size(), kAuditPageBytes / 4000);
  for (const Json& e : tail) EXPECT_EQ(e["time"].get<std::string>().size(), 4000u);
}

}  // namespace
}  // namespace tdacli
