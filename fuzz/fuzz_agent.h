#pragma once
// The agent of a fuzz target: a simulated clock, facilities that go nowhere, and an application folder
// "app" inside a temporary folder of its own (removed at exit), so that a target can also check that
// nothing lands beside the application folder.
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/clock.h"
#include "seams/quiet_agent.h"
#include "service/wiring.h"

namespace tdacli::fuzzing {

// Removes everything inside the folder and keeps the folder.
inline void EmptyFolder(const std::filesystem::path& folder) {
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator();
       it.increment(ec)) {
    std::error_code ignored;
    std::filesystem::remove_all(it->path(), ignored);
  }
}

// A console-made settings file: extension 1234, the listener on any free port.
inline constexpr std::string_view kSettings =
    "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=1234\r\nListeningPorts=1,0,2,3\r\n";

struct FuzzAgent : QuietFacilities {
  // `idle_grace_ms`: how long the clock waits for real sockets before time jumps (0 with no peers).
  // `settings`: the settings file the agent finds at start, if any.
  FuzzAgent(const std::string& target, int idle_grace_ms, std::string_view settings = {}) : settings_(settings) {
    root = std::filesystem::temp_directory_path() /
           ("tdacli-" + target + "-fuzz-" + std::to_string(std::random_device{}()));
    app = root / "app";
    std::filesystem::create_directories(app);
    WriteSettings();
    clock.idle_grace_ms = idle_grace_ms;
    agent = MakeAgent(clock, app.string());
  }
  ~FuzzAgent() {
    agent.reset();
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }
  FuzzAgent(const FuzzAgent&) = delete;
  FuzzAgent& operator=(const FuzzAgent&) = delete;

  // Every input starts from the same folder, so nothing an input leaves behind (logs that every input
  // lengthens, task files, request files the message timer lists at each tick) makes the inputs after
  // it slower or changes what they do.
  void ResetFolder() {
    EmptyFolder(app);
    WriteSettings();
  }

  std::filesystem::path root;
  std::filesystem::path app;
  platform::SimulatedClock clock;
  std::unique_ptr<Agent> agent;

 private:
  void WriteSettings() {
    if (!settings_.empty())
      std::ofstream(app / "TDRegInfo.TXT", std::ios::binary).write(settings_.data(), std::streamsize(settings_.size()));
  }
  std::string settings_;
};

}  // namespace tdacli::fuzzing
