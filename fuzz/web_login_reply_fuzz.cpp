// Arbitrary web-service answers to a login. First byte's low three bits not 1: the rest goes to the
// login-reply field parser (ApplyLoginReplyFields) alone. 1: bits 3-4 choose the HTTP status (200, 404,
// 500 or nothing received), the rest is the body, and WebService_LoginUser runs whole (decision, field parser, storing
// the values) in a temporary application folder emptied after every input. Checked: the outcome
// follows the markers, no stored value holds a CR or LF, the settings file keeps its thirteen lines.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "common/files.h"
#include "common/text.h"
#include "fuzz_agent.h"
#include "login/web_service.h"
#include "seams/quiet_facilities.h"
#include "service/wiring.h"

namespace {

using namespace tdacli;
namespace fs = std::filesystem;

struct Harness : fuzzing::FuzzAgent {
  Harness() : FuzzAgent("web-login", 0) { agent->startup_banner_written = true; }
};

bool HasLineBreak(const std::string& s) { return s.find_first_of("\r\n") != std::string::npos; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Harness h;
  if (size == 0) return 0;
  Agent& a = *h.agent;
  a.WriteLogin() = LoginState{};
  a.settings = Settings{};
  const std::string input(reinterpret_cast<const char*>(data + 1), size - 1);
  if ((data[0] & 7) == 1) {
    // The whole login: decision, field parser, storing (writes files; slower).
    static const int kStatus[] = {200, 404, 500, 0};
    const int status = kStatus[(data[0] >> 3) & 3];
    h.http.on_get = [&](const std::string&) {
      platform::HttpResponse r;
      r.received = status != 0;
      r.status = status;
      if (r.received) r.body = input;
      return r;
    };
    a.settings.CurrentUser = "jsmith";
    a.settings.Server = "td.example.com:8080";
    a.stored_lines = {};
    a.local_ip = "192.168.5.20";
    WebService_LoginUser(a);
    const bool answered = status != 0 && status != 404 && !input.empty() && !Contains(input, "HTTP 404");
    const bool success = answered && !Contains(input, "ERROR|") && Contains(input, "SUCCESS|");
    if (a.login().LoginSucceeded != success) std::abort();
    std::vector<std::string> lines;
    if (ReadLines(a.AppPath("TDRegInfo.TXT"), lines) && lines.size() != 13) std::abort();
    h.ResetFolder();
  } else {
    // The login-reply field parser alone: the text after "SUCCESS|". A flag that is no Boolean is the
    // one error it may raise.
    try {
      ApplyLoginReplyFields(a, input);
    } catch (const std::runtime_error& e) {
      if (std::string(e.what()) != "Type mismatch") std::abort();
    }
  }
  const Settings& s = a.settings;
  const LoginState& l = a.login();
  for (const std::string* v : std::initializer_list<const std::string*>{
           &s.SvrTemp, &s.LocalTemp, &s.UseTrace, &l.HundredScreensParam, &l.ValidIPMask, &l.KekInfo, &l.TDLiveID,
           &l.RepeaterIP, &l.RepeaterPort, &a.ftp().FtpServer, &a.ftp().FtpUserName, &a.ftp().FtpEncryptedPassword,
           &a.ftp().FtpPort})
    if (HasLineBreak(*v)) std::abort();
  return 0;
}
