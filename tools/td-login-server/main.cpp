// td-login-server: plays the TD Login Server on the line protocol of port 5003, for tests and for
// trying an agent without the real server. See README.md beside this file.
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "login_server.h"
#include "usage.h"
#ifdef TDACLI_SIM_WEB
#include <signal.h>
#include <time.h>

#include "web_server.h"
#endif

namespace {

using namespace tdacli;


int Fail(const std::string& text) {
  std::cerr << "td-login-server: " << text << "\n" << loginsim::kUsage;
  return 2;
}

bool ToNumber(std::string_view text, int& out) {
  if (text.empty() || text.size() > 9) return false;
  out = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    out = out * 10 + (c - '0');
  }
  return true;
}

int RunWebService(const std::string& listen, bool https, const std::string& cert, const std::string& key,
                  const std::string& fault, const std::vector<std::pair<std::string, std::string>>& tasks,
                  const std::string& users_path, const std::string& transcript_path, int exit_after, bool quiet) {
#ifndef TDACLI_SIM_WEB
  (void)listen, (void)https, (void)cert, (void)key, (void)fault, (void)tasks, (void)users_path,
      (void)transcript_path, (void)exit_after, (void)quiet;
  return Fail("this build has no web service (cpp-httplib and OpenSSL were not found)");
#else
  loginsim::WebOptions options;
  options.https = https;
  options.cert_file = cert;
  options.key_file = key;
  const size_t colon = listen.rfind(':');
  if (colon == std::string::npos || colon == 0) return Fail("--http and --https need ADDRESS:PORT");
  options.address = listen.substr(0, colon);
  if (!ToNumber(listen.substr(colon + 1), options.port) || options.port > 65535) return Fail("bad port in " + listen);
  if (!fault.empty() && !loginsim::ParseWebFault(fault, options)) return Fail("unknown fault mode " + fault);
  if (https && options.fault != loginsim::WebFault::kUntrusted && (cert.empty() || key.empty()))
    return Fail("--https needs --cert and --key");

  loginsim::UserTable users;
  std::string error;
  if (!users.Load(users_path, error)) return Fail(users_path + ": " + error);
  std::ofstream transcript;
  if (!transcript_path.empty()) {
    transcript.open(transcript_path, std::ios::binary | std::ios::trunc);
    if (!transcript) return Fail("cannot write " + transcript_path);
  }
  // Signals are taken here, by sigtimedwait, not by the server's threads.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);

  loginsim::WebLoginServer server(std::move(users), options);
  for (const auto& [machine, task] : tasks) server.QueueGrabberTask(machine, task);
  server.on_line = [&](const std::string& line) {
    if (!quiet) std::cout << line << std::endl;
    if (transcript.is_open()) transcript << line << "\r\n" << std::flush;
  };
  if (!server.Start(error)) return Fail(error);
  int code = 0;
  timespec limit{exit_after > 0 ? exit_after : 365 * 24 * 3600, 0};
  for (;;) {
    const int sig = sigtimedwait(&set, nullptr, &limit);
    if (sig == SIGTERM || sig == SIGINT) break;
    if (sig < 0 && errno == EAGAIN) {
      std::cerr << "td-login-server: giving up after " << exit_after << " s\n";
      code = 3;
      break;
    }
  }
  server.Stop();
  return code;
#endif
}

}  // namespace

int main(int argc, char** argv) {
  loginsim::Options options;
  std::string listen, users_path, transcript_path, fault, web_listen, cert, key, pki;
  std::vector<std::pair<std::string, std::string>> tasks;
  bool web_https = false;
  int exit_after = 0;
  bool quiet = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string v;
    if (arg == "--help" || arg == "-h") {
      std::cout << loginsim::kUsage;
      return 0;
    } else if (arg == "--listen") {
      if (!value(listen)) return Fail("--listen needs an address");
    } else if (arg == "--users") {
      if (!value(users_path)) return Fail("--users needs a file");
    } else if (arg == "--transcript") {
      if (!value(transcript_path)) return Fail("--transcript needs a file");
    } else if (arg == "--fault") {
      if (!value(fault)) return Fail("--fault needs a mode");
    } else if (arg == "--http" || arg == "--https") {
      if (!web_listen.empty()) return Fail("give one of --http and --https");
      web_https = arg == "--https";
      if (!value(web_listen)) return Fail(arg + " needs ADDRESS:PORT");
    } else if (arg == "--cert") {
      if (!value(cert)) return Fail("--cert needs a file");
    } else if (arg == "--key") {
      if (!value(key)) return Fail("--key needs a file");
    } else if (arg == "--grabber-task") {
      if (!value(v) || v.find('=') == std::string::npos || v.find('=') == 0)
        return Fail("--grabber-task needs MACHINE=TASK");
      tasks.emplace_back(v.substr(0, v.find('=')), v.substr(v.find('=') + 1));
    } else if (arg == "--make-test-pki") {
      if (!value(pki)) return Fail("--make-test-pki needs a folder");
    } else if (arg == "--once") {
      options.once = true;
    } else if (arg == "--push-gap") {
      if (!value(v) || !ToNumber(v, options.push_gap_ms)) return Fail("--push-gap needs milliseconds");
    } else if (arg == "--exit-after") {
      if (!value(v) || !ToNumber(v, exit_after) || exit_after == 0) return Fail("--exit-after needs seconds");
    } else if (arg == "--quiet") {
      quiet = true;
    } else {
      return Fail((arg.rfind("-", 0) == 0 ? "unknown option " : "unknown argument ") + arg);
    }
  }
  if (!pki.empty()) {
#ifdef TDACLI_SIM_WEB
    std::string error;
    if (!loginsim::MakeTestPki(pki, error)) return Fail(error);
    return 0;
#else
    return Fail("this build has no web service (cpp-httplib and OpenSSL were not found)");
#endif
  }
  if (!web_listen.empty()) {
    if (!listen.empty()) return Fail("give --listen or --http/--https, not both");
    if (users_path.empty()) return Fail("--users is required");
    return RunWebService(web_listen, web_https, cert, key, fault, tasks, users_path, transcript_path, exit_after,
                         quiet);
  }
  if (!fault.empty() && !loginsim::ParseFault(fault, options)) return Fail("unknown fault mode " + fault);
  if (listen.empty()) return Fail("--listen is required");
  if (users_path.empty()) return Fail("--users is required");

  const size_t colon = listen.find(':');
  options.address = listen.substr(0, colon);
  if (colon != std::string::npos) {
    int port = 0;
    if (!ToNumber(listen.substr(colon + 1), port) || port < 1 || port > 65535) return Fail("bad port in " + listen);
    options.port = static_cast<uint16_t>(port);
  }

  loginsim::UserTable users;
  std::string error;
  if (!users.Load(users_path, error)) return Fail(users_path + ": " + error);

  std::ofstream transcript;
  if (!transcript_path.empty()) {
    transcript.open(transcript_path, std::ios::binary | std::ios::trunc);
    if (!transcript) return Fail("cannot write " + transcript_path);
  }

  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);
  loginsim::LoginServer server(loop, std::move(users), options);
  server.on_line = [&](const std::string& line) {
    if (!quiet) std::cout << line << std::endl;
    if (transcript.is_open()) transcript << line << "\r\n" << std::flush;
  };
  int code = 0;
  server.on_finished = [&] { loop.Quit(); };
  platform::Timer give_up(loop);
  give_up.on_tick = [&] {
    std::cerr << "td-login-server: giving up after " << exit_after << " s\n";
    code = 3;
    loop.Quit();
  };
  if (exit_after > 0) {
    give_up.SetInterval(exit_after * 1000);
    give_up.SetEnabled(true);
  }
  if (platform::SocketError e = server.Start())
    return Fail("cannot listen on " + options.address + ":" + std::to_string(options.port) + ": " + e.description);
  loop.Run();
  return code;
}
