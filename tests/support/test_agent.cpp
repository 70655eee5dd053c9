#include "support/test_agent.h"

#include <atomic>
#include <fstream>
#include <random>
#include <thread>

namespace fs = std::filesystem;

namespace tdacli::testing {

TempDir::TempDir() {
  static std::atomic<int> counter{0};
  std::random_device rd;
  fs::path base = fs::temp_directory_path() /
                  ("tdacli-test-" + std::to_string(rd()) + "-" + std::to_string(counter++));
  fs::create_directories(base);
  path_ = base.string();
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << content;
}

bool Exists(const std::string& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

std::vector<std::string> Lines(const std::string& path) {
  std::string all = ReadFile(path);
  std::vector<std::string> out;
  size_t start = 0;
  while (start < all.size()) {
    size_t p = all.find("\r\n", start);
    if (p == std::string::npos) {
      out.push_back(all.substr(start));
      break;
    }
    out.push_back(all.substr(start, p - start));
    start = p + 2;
  }
  return out;
}

std::vector<std::string> TraceMessages(const std::string& path) {
  std::vector<std::string> out;
  for (const auto& line : Lines(path)) {
    // "YYYY-MM-DD HH:NN:SS AM  -  " is 27 characters.
    if (line.size() > 27 && line.compare(22, 5, "  -  ") == 0)
      out.push_back(line.substr(27));
    else
      out.push_back(line);  // continuation lines of a multi-line message
  }
  return out;
}

TestAgent::TestAgent(platform::LocalTime start) : clock(start) {
  AgentOptions o;
  o.exe_folder = dir.path();
  o.exe_base_name = "tdacli";
  o.command_line = "";
  o.file_revision = 7;
  agent = NewAgent(
      AgentFacilities{clock, host, event_log, service_control, dialogs, service_host, http, internet}, o);
}

TestAgent::~TestAgent() { agent.reset(); }

}  // namespace tdacli::testing
