// Test-only client of the Windows service manager for the service round trip under Wine, whose sc.exe
// cannot send user-defined control codes:
//   svctool installed|start|stop|pause|continue|query|config <service>
//   svctool control <service> <code>       (through the agent's own service-control client)
//   svctool wait <service> <state> <seconds>
//   svctool version <file>                  (the string keys of the file's version resource)
// Prints "result=<Windows error number>" (and "state=", "config" lines; query adds "accepted=", "exit="
// and "service_exit="); exits 0 on success.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace {

int Fail(const char* what) {
  const DWORD e = GetLastError();
  std::printf("result=%lu\n", static_cast<unsigned long>(e));
  std::fprintf(stderr, "svctool: %s failed with %lu\n", what, static_cast<unsigned long>(e));
  return 1;
}

struct Handles {
  SC_HANDLE scm = nullptr, svc = nullptr;
  ~Handles() {
    if (svc) CloseServiceHandle(svc);
    if (scm) CloseServiceHandle(scm);
  }
};

bool Open(Handles& h, const char* name, DWORD access) {
  h.scm = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
  if (!h.scm) return false;
  h.svc = OpenServiceA(h.scm, name, access);
  return h.svc != nullptr;
}

int Control(const char* name, DWORD control, DWORD access) {
  Handles h;
  if (!Open(h, name, access)) return Fail("OpenService");
  SERVICE_STATUS st{};
  if (!ControlService(h.svc, control, &st)) return Fail("ControlService");
  std::printf("result=0\nstate=%lu\n", static_cast<unsigned long>(st.dwCurrentState));
  return 0;
}

int Config(const char* name) {
  Handles h;
  if (!Open(h, name, SERVICE_QUERY_CONFIG)) return Fail("OpenService");
  DWORD needed = 0;
  QueryServiceConfigA(h.svc, nullptr, 0, &needed);
  std::vector<unsigned char> buf(needed ? needed : 1);
  auto* cfg = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(buf.data());
  if (!QueryServiceConfigA(h.svc, cfg, static_cast<DWORD>(buf.size()), &needed)) return Fail("QueryServiceConfig");
  std::string deps;
  for (const char* p = cfg->lpDependencies; p && *p; p += std::strlen(p) + 1) {
    if (!deps.empty()) deps += ",";
    deps += p;
  }
  std::printf("result=0\n");
  std::printf("display=%s\n", cfg->lpDisplayName ? cfg->lpDisplayName : "");
  std::printf("type=%lu\n", static_cast<unsigned long>(cfg->dwServiceType));
  std::printf("start=%lu\n", static_cast<unsigned long>(cfg->dwStartType));
  std::printf("account=%s\n", cfg->lpServiceStartName ? cfg->lpServiceStartName : "");
  std::printf("dependencies=%s\n", deps.c_str());
  std::printf("binary=%s\n", cfg->lpBinaryPathName ? cfg->lpBinaryPathName : "");
  needed = 0;
  QueryServiceConfig2A(h.svc, SERVICE_CONFIG_DESCRIPTION, nullptr, 0, &needed);
  std::vector<unsigned char> dbuf(needed ? needed : 1);
  auto* desc = reinterpret_cast<SERVICE_DESCRIPTIONA*>(dbuf.data());
  if (QueryServiceConfig2A(h.svc, SERVICE_CONFIG_DESCRIPTION, dbuf.data(), static_cast<DWORD>(dbuf.size()), &needed))
    std::printf("description=%s\n", desc->lpDescription ? desc->lpDescription : "");
  return 0;
}

int Wait(const char* name, DWORD state, int seconds) {
  Handles h;
  if (!Open(h, name, SERVICE_QUERY_STATUS)) return Fail("OpenService");
  SERVICE_STATUS st{};
  for (int i = 0; i <= seconds * 10; ++i) {
    if (!QueryServiceStatus(h.svc, &st)) return Fail("QueryServiceStatus");
    if (st.dwCurrentState == state) {
      std::printf("result=0\nstate=%lu\n", static_cast<unsigned long>(st.dwCurrentState));
      return 0;
    }
    Sleep(100);
  }
  std::printf("result=%lu\nstate=%lu\n", static_cast<unsigned long>(WAIT_TIMEOUT), static_cast<unsigned long>(st.dwCurrentState));
  return 1;
}

int Version(const char* file) {
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeA(file, &ignored);
  if (size == 0) return Fail("GetFileVersionInfoSize");
  std::vector<unsigned char> data(size);
  if (!GetFileVersionInfoA(file, 0, size, data.data())) return Fail("GetFileVersionInfo");
  struct Translation {
    WORD language, codepage;
  }* tr = nullptr;
  UINT len = 0;
  if (!VerQueryValueA(data.data(), "\\VarFileInfo\\Translation", reinterpret_cast<void**>(&tr), &len) || len < 4)
    return Fail("VerQueryValue");
  VS_FIXEDFILEINFO* fixed = nullptr;
  if (!VerQueryValueA(data.data(), "\\", reinterpret_cast<void**>(&fixed), &len)) return Fail("VerQueryValue");
  std::printf("result=0\nfixed=%lu.%lu.%lu.%lu\n", static_cast<unsigned long>(HIWORD(fixed->dwFileVersionMS)),
              static_cast<unsigned long>(LOWORD(fixed->dwFileVersionMS)),
              static_cast<unsigned long>(HIWORD(fixed->dwFileVersionLS)),
              static_cast<unsigned long>(LOWORD(fixed->dwFileVersionLS)));
  char block[64];
  std::snprintf(block, sizeof block, "\\StringFileInfo\\%04x%04x\\", tr->language, tr->codepage);
  for (const char* key : {"CompanyName", "FileDescription", "FileVersion", "InternalName", "LegalCopyright",
                          "OriginalFilename", "ProductName", "ProductVersion"}) {
    char* value = nullptr;
    const std::string query = std::string(block) + key;
    if (VerQueryValueA(data.data(), query.c_str(), reinterpret_cast<void**>(&value), &len) && value)
      std::printf("%s=%s\n", key, value);
  }
  return 0;
}

}  // namespace

// Sends WM_CLOSE (or, with "end-session", WM_QUERYENDSESSION; with "session-ended", WM_QUERYENDSESSION
// and then WM_ENDSESSION with TRUE whatever the answer, as Windows does when the user forces the
// sign-out or shutdown; with "find", nothing) to the agent's hidden main form, as the system would,
// and prints the form's answer. A service's windows live in the service window station (Wine's
// "__wineservice_winstation"); with "service" as the place the tool joins it first.
int CloseForm(const std::string& place, const std::string& how) {
  if (place == "service") {
    HWINSTA station = OpenWindowStationA("__wineservice_winstation", FALSE, WINSTA_ALL_ACCESS);
    if (!station || !SetProcessWindowStation(station)) return Fail("OpenWindowStation");
    HDESK desk = OpenDesktopA("Default", 0, FALSE, GENERIC_ALL);
    if (!desk || !SetThreadDesktop(desk)) return Fail("OpenDesktop");
  }
  HWND form = FindWindowA("TDACLI.frmMain", "frmMain");
  if (!form) return Fail("FindWindow");
  if (how == "find") {
    std::printf("result=0\nwindow=yes\n");
    return 0;
  }
  const UINT msg = how == "end-session" || how == "session-ended" ? WM_QUERYENDSESSION : WM_CLOSE;
  DWORD_PTR answer = 0;
  if (!SendMessageTimeoutA(form, msg, 0, 0, SMTO_NORMAL, 30000, &answer)) return Fail("SendMessageTimeout");
  if (how == "session-ended") {
    DWORD_PTR ignored = 0;
    if (!SendMessageTimeoutA(form, WM_ENDSESSION, TRUE, 0, SMTO_NORMAL, 30000, &ignored))
      return Fail("SendMessageTimeout(WM_ENDSESSION)");
  }
  std::printf("result=0\nanswer=%lu\nwindow=%s\n", static_cast<unsigned long>(answer), IsWindow(form) ? "yes" : "no");
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: svctool <verb> <service> [argument...]\n");
    return 2;
  }
  const std::string verb = argv[1];
  const char* name = argv[2];
  if (verb == "version") return Version(name);
  if (verb == "installed") {
    Handles h;
    const bool installed = Open(h, name, SERVICE_QUERY_STATUS);
    std::printf("installed=%s\n", installed ? "yes" : "no");
    return installed ? 0 : 1;
  }
  if (verb == "start") {
    Handles h;
    if (!Open(h, name, SERVICE_START)) return Fail("OpenService");
    if (!StartServiceA(h.svc, 0, nullptr)) return Fail("StartService");
    std::printf("result=0\n");
    return 0;
  }
  if (verb == "stop") return Control(name, SERVICE_CONTROL_STOP, SERVICE_STOP);
  if (verb == "pause") return Control(name, SERVICE_CONTROL_PAUSE, SERVICE_PAUSE_CONTINUE);
  if (verb == "continue") return Control(name, SERVICE_CONTROL_CONTINUE, SERVICE_PAUSE_CONTINUE);
  if (verb == "query") {
    Handles h;
    if (!Open(h, name, SERVICE_QUERY_STATUS)) return Fail("OpenService");
    SERVICE_STATUS st{};
    if (!QueryServiceStatus(h.svc, &st)) return Fail("QueryServiceStatus");
    std::printf("result=0\nstate=%lu\naccepted=%lu\nexit=%lu\nservice_exit=%lu\n",
                static_cast<unsigned long>(st.dwCurrentState), static_cast<unsigned long>(st.dwControlsAccepted),
                static_cast<unsigned long>(st.dwWin32ExitCode), static_cast<unsigned long>(st.dwServiceSpecificExitCode));
    return 0;
  }
  if (verb == "config") return Config(name);
  if (verb == "control" && argc >= 4) {
    // The same client the agent uses to message its siblings.
    auto client = tdacli::platform::MakeServiceControlClient("");
    const unsigned long rc = client->SendControl(name, std::atoi(argv[3]));
    std::printf("result=%lu\n", rc);
    return rc == 0 ? 0 : 1;
  }
  if (verb == "close-form") return CloseForm(name, argc >= 4 ? argv[3] : "close");
  if (verb == "wait" && argc >= 5) return Wait(name, static_cast<DWORD>(std::atoi(argv[3])), std::atoi(argv[4]));
  std::fprintf(stderr, "svctool: unknown verb %s\n", verb.c_str());
  return 2;
}
