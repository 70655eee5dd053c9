// Arbitrary web-service answers to the phone-home call: the first byte chooses the HTTP status (200,
// 404, 500 or nothing received), the rest is the body. WebService_PhoneHomeForScreenGrabberTasks runs
// whole in a temporary application folder emptied after every input. Checked: a task file appears only
// for an answer that carries "|SENDFRAMES|" (and no "ERROR|", "SUCCESS|NONE" or 404), it lies in the
// application folder, and it holds exactly one line.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/files.h"
#include "common/text.h"
#include "fuzz_agent.h"
#include "login/web_service.h"
#include "seams/quiet_facilities.h"
#include "service/wiring.h"
#include "triggers/trigger_files.h"

namespace {

using namespace tdacli;
namespace fs = std::filesystem;

struct Harness : fuzzing::FuzzAgent {
  Harness() : FuzzAgent("phone-home", 0) {
    agent->startup_banner_written = true;
    agent->settings.Server = "td.example.com:https";
    agent->computer_names[3] = "wks-0042.corp.example";
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Harness h;
  if (size == 0) return 0;
  static const int kStatus[] = {200, 404, 500, 0};
  const int status = kStatus[data[0] & 3];
  const std::string body(reinterpret_cast<const char*>(data + 1), size - 1);
  h.http.on_get = [&](const std::string&) {
    platform::HttpResponse r;
    r.received = status != 0;
    r.status = status;
    if (r.received) r.body = body;
    return r;
  };

  PhoneHomeForScreenGrabberTasks(*h.agent);

  const bool task = status != 0 && status != 404 && !Contains(body, "HTTP 404") && !Contains(body, "ERROR|") &&
                    !Contains(body, "SUCCESS|NONE") && Contains(body, "|SENDFRAMES|");
  int files = 0;
  std::error_code ec;
  // Nothing lands beside the application folder.
  for (const auto& e : fs::directory_iterator(h.root, ec))
    if (e.path().filename() != "app") std::abort();
  for (const auto& e : fs::directory_iterator(h.app, ec)) {
    const std::string name = e.path().filename().string();
    if (name.rfind("SendFrames-", 0) != 0 && (name.ends_with("TraceFile.TXT") || name.ends_with("Error.LOG"))) continue;
    if (name.rfind("SendFrames-", 0) != 0 || name.size() < 15 || name.substr(name.size() - 4) != ".TSF") std::abort();
    std::string content;
    if (!ReadTextFile(e.path().string(), content)) std::abort();
    if (content.size() < 2 || content.substr(content.size() - 2) != "\r\n" ||
        content.find_first_of("\r\n") != content.size() - 2)
      std::abort();
    ++files;
  }
  if (files > (task ? 1 : 0)) std::abort();
  h.ResetFolder();
  return 0;
}
