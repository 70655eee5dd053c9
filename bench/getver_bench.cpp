// "|GETVER|" round trips per second against a running tdacli whose folder holds 15 of the suite's
// component files (real PE images with version resources): every report reads each file's version
// resource, dates and sizes, asks for the services' state and re-reads the settings. Measured twice:
// with the names as the report spells them, and with lower-case names, which a POSIX host must find by
// scanning the folder.
//   getver_bench [SECONDS] [IMAGE]   (IMAGE: a PE file to use for every component instead of the
//                                     images of tests/data/pe)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench_args.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/host_identity.h"
#include "platform/tcp_socket.h"

#ifndef _WIN32
#include "agent_process.h"
#include "console_client.h"
#endif

namespace fs = std::filesystem;
using namespace tdacli;

#ifndef _WIN32
namespace {

// The components as the report names them (15 of its rows).
const char* const kComponents[] = {"TDACLI.EXE",  "TDACSC.EXE",  "TDACMT.EXE", "TDACLM.EXE",    "TDACSE.EXE",
                                   "TDACWC.EXE",  "UPDMGR.EXE",  "TDACLD.EXE", "TDACCF.EXE",    "TDACAD.EXE",
                                   "SVCCTL.OCX",  "SCRREC3.OCX", "FTPLIB2.DLL", "RC/TDACVC.EXE", "RC/RCHOOKS.DLL"};

using bench::Client;
using bench::FreePort;

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Usage usage(
      argc, argv, "getver_bench", "[SECONDS [IMAGE]]",
      "\"|GETVER|\" round trips per second against a running tdacli whose folder holds 15 of the suite's\n"
      "component files, for SECONDS each (default 3), with the names as the report spells them and in\n"
      "lower case. IMAGE: a PE file to use for every component instead of the images of tests/data/pe.\n",
      2);
  const double seconds = usage.Seconds(1, 3.0);
  std::vector<std::string> images;
  if (argc > 2) {
    images.push_back(usage.Word(2, ""));
  } else {
    const std::string pe = std::string(TDACLI_SOURCE_DIR) + "/tests/data/pe/";
    images = {pe + "prog64.exe", pe + "full64.dll", pe + "full32.dll", pe + "german64.dll"};
  }
  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);

  const uint16_t port = FreePort(loop);
  bench::AgentProcess agent("tdacli-getver-bench", port);
  if (!agent.ready()) return 1;
  const fs::path& dir = agent.dir();
  fs::create_directories(dir / "RC");
  unsigned long long bytes = 0;
  for (size_t i = 0; i < std::size(kComponents); ++i) {
    const std::string& from = images[i % images.size()];
    fs::copy_file(from, dir / kComponents[i], fs::copy_options::overwrite_existing);
    bytes += fs::file_size(from);
  }
  std::ofstream(dir / "RC" / "TDACLM.INI", std::ios::binary) << "[Config]\r\nServerPort=5020\r\n";
  agent.Start();

  if (!bench::WaitForListener(loop, port)) return 1;

  Client c(loop);
  if (!c.Connect(port)) return 1;
  constexpr std::string_view kLast = "FTP PassiveUseHostAddr: N/A{CRLF}";
  auto one = [&] {
    c.socket.SendData("|GETVER|");
    return loop.RunUntil(clock->NowMs() + 5000, [&] {
      return c.received.size() >= kLast.size() &&
             c.received.compare(c.received.size() - kLast.size(), kLast.size(), kLast) == 0;
    });
  };
  std::printf("GETVER round trips against tdacli, %zu component files (%llu bytes in all)\n", std::size(kComponents),
              bytes);
  for (int phase = 0; phase < 2; ++phase) {
    if (phase == 1) {
      for (const char* name : kComponents) {
        const fs::path p = dir / name;
        fs::rename(p, p.parent_path() / Lower(p.filename().string()));
      }
    }
    for (int i = 0; i < 50; ++i) {
      if (!one()) {
        std::fprintf(stderr, "GETVER round trip timed out during warm-up\n");
        return 1;
      }
      if (i == 0 && c.received.find("Unavailable!") != std::string::npos &&
          c.received.find("Agent Login Service:              ") == std::string::npos) {
        std::fprintf(stderr, "the report does not see the components:\n%s\n", c.received.c_str());
        return 1;
      }
      c.received.clear();
    }
    long trips = 0;
    const auto t0 = std::chrono::steady_clock::now();
    double elapsed = 0;
    size_t reply_size = 0;
    while (elapsed < seconds) {
      if (!one()) {
        std::fprintf(stderr, "GETVER round trip timed out after %ld\n", trips);
        return 1;
      }
      reply_size = c.received.size();
      c.received.clear();
      ++trips;
      elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    std::printf("  %-34s %8.0f round trips/s  (%ld in %.2f s, reply %zu bytes, goal >= 200/s)\n",
                phase == 0 ? "names as the report spells them:" : "lower-case names (folder scans):",
                trips / elapsed, trips, elapsed, reply_size);
  }
  c.socket.Close();
  return 0;
}
#else
int main() {
  std::fprintf(stderr, "getver_bench runs on POSIX hosts\n");
  return 1;
}
#endif
