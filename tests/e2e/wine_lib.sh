# What the runs under Wine share (sourced after lib.sh). A run has a private prefix of its own, with
# its own Wine server and service manager (begin_wine_run, start_wine), or runs its programs through
# cmake/wine-run.sh in the prefix $PREFIX ($WINE_RUN set).

# A run in a private prefix: $WORK emptied, the application folder $APP in it, LOG for Wine's standard
# error, WINE, WINESERVER and the environment of Wine's programs ($1: their debug channels, -all
# unless given). At exit the services of the run are removed, Wine ended and the simulator stopped.
begin_wine_run() {
  STARTED=$(date +%s%N)
  # Wine started through cmake/wine.sh, with the layout of its address space fixed (see there).
  WINE=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../cmake" && pwd)/wine.sh
  WINESERVER=/usr/lib/wine/wineserver
  [ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)
  APP=$WORK/app
  LOG=$WORK/wine-stderr.log
  export WINEPREFIX=$WORK/prefix
  export WINEDEBUG=${1:--all}
  export WINEDLLOVERRIDES="mscoree,mshtml="
  export DISPLAY=
  rm -rf "$WORK"
  mkdir -p "$APP"
  SERVER_PID= SERVICES=
  trap end_wine_run EXIT
}
end_wine_run() {
  if [ -n "$SERVICES" ]; then
    wine_run "$SVCTOOL" stop TDACMT >/dev/null 2>&1
    wine_run "$SVCTOOL" stop TDACLI >/dev/null 2>&1
    wine_run sc delete TDACMT >/dev/null 2>&1
    (cd "$APP" && wine_run tdacli.exe /u /s >/dev/null 2>&1)
  fi
  "$WINESERVER" -k >/dev/null 2>&1
  if [ -n "$SERVER_PID" ]; then
    kill -TERM "$SERVER_PID" 2>/dev/null
    wait "$SERVER_PID" 2>/dev/null
  fi
  return 0
}
# Opens the desktop of the prefix $1 before a program's form needs it, held by a window of its own
# (cmake/wine-desktop.sh): a program gives the desktop's process 10 seconds to come up, which a busy
# machine does not always allow, and a form made without a desktop never hears that the session ends.
# The words after the prefix are put before the command (setpriv ... --). DESKTOP_KEEPER: the process
# that holds it.
open_desktop() {
  local prefix=$1
  shift
  "$@" env WINEPREFIX="$prefix" "$(cd "$(dirname "${BASH_SOURCE[0]}")/../../cmake" && pwd)/wine-desktop.sh" \
    --pid-file "$WORK/desktop-keeper.pid" || fail "the desktop of $prefix did not open"
  DESKTOP_KEEPER=$(cat "$WORK/desktop-keeper.pid")
}
# Once the program's form is on the desktop it holds it: the window that held it goes, as the end of
# the session would wait for it. Ended is gone, or a zombie that whoever inherited it has yet to reap.
release_desktop() {
  keeper_ended() {
    local state
    state=$(ps -o stat= -p "$DESKTOP_KEEPER" 2>/dev/null)
    [ -z "$state" ] || [ "${state:0:1}" = Z ]
  }
  kill -KILL "$DESKTOP_KEEPER" 2>/dev/null
  wait_for 20 keeper_ended || fail "the desktop's keeper did not end"
}
# Makes the private prefix and starts its Wine server for the rest of the run.
start_wine() {
  step "private prefix and service manager"
  # Create the prefix and let every set-up process finish, so that nothing rewrites the service
  # database under the test.
  WINEDEBUG=-all "$WINE" wineboot -i >/dev/null 2>&1 || fail "wineboot -i"
  # The agent's hidden main form is a real window: windows need a display driver, the null one here.
  WINEDEBUG=-all "$WINE" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1 || fail "reg add"
  "$WINESERVER" -w
  # One server for the rest of the run; the first program started under it starts the service manager,
  # which thereby inherits this environment and standard error.
  "$WINESERVER" -p
  "$WINE" wineboot >>"$LOG" 2>&1 || fail "wineboot"
  echo "Wine ready after $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
}

wine_run() {
  if [ -n "${WINE_RUN:-}" ]; then "$WINE_RUN" "--prefix=$PREFIX" "$@"; else "$WINE" "$@"; fi
}
winpath() { wine_run winepath -w "$1" 2>>"${LOG:-/dev/null}" | tr -d '\r'; }
svctool() { wine_run "$SVCTOOL" "$@" 2>>"$LOG" | tr -d '\r'; return "${PIPESTATUS[0]}"; }
# What became of the code ("code 128 sent to TDACLI", or why not).
control() { wine_run "$EXPLORER" control "$1" "$2" 2>&1 | tr -d '\r'; return "${PIPESTATUS[0]}"; }
# tdacli.exe run in its application folder with the arguments given.
agent_exe() { (cd "$APP" && wine_run tdacli.exe "$@" >>"$LOG" 2>&1); }

# A console-made settings file: the user $USER_NAME against $SERVER, the notification method $1, a
# free listening port PORT below 32768. APP_W is the application folder's Windows path.
prepare_agent_settings() {
  step "settings: the server, the user, the $1 method, a free listening port below 32768"
  PORT=$(free_port) || fail "no free port"
  APP_W=$(winpath "$APP")
  [ -n "$APP_W" ] || fail "no Windows path for $APP"
  settings_text "$PORT" "$1" "$(winpath "$WORK/temp")" >"$APP/TDRegInfo.TXT"
}
# Installs $TDACLI as the service TDACLI ("/s") and the stand-in $STANDIN as the service TDACMT
# answering $1, both from the application folder; they are stopped and removed with the run.
install_services() {
  step "install: tdacli.exe /s, and the stand-in as TDACMT"
  cp "$TDACLI" "$APP/tdacli.exe"
  # The siblings live in the agent's application folder.
  cp "$STANDIN" "$APP/sibling-standin.exe"
  SERVICES=1
  agent_exe /s || fail "tdacli.exe /s exited with $?"
  wine_run sc create TDACMT binpath= "\"$APP_W\\sibling-standin.exe\" --name TDACMT --app-dir $APP_W --answer $1 --log $(winpath "$WORK/TDACMT.log")" \
    >>"$LOG" 2>&1 || fail "sc create TDACMT"
}
# Starts TDACMT, then TDACLI, through the service manager, and waits for the agent's banner.
start_services() {
  local s out
  step "start both services through the service manager"
  for s in TDACMT TDACLI; do
    out=$(svctool start $s) || fail "StartService($s): $out"
    out=$(svctool wait $s 4 60) || fail "$s not running: $out"
  done
  wait_for 60 has_message "Running As: WinService" || fail "no start-up banner"
}
# The configuration of the service TDACLI, in cfg (and on standard output), as both the installer and
# "/s" make it; its registry entry names the dependency.
check_service_config() {
  local want svc
  cfg=$(svctool config TDACLI) || fail "no configuration: $cfg"
  echo "$cfg"
  for want in "display=TD - Agent Client Login Service" "type=16" "start=2" "account=LocalSystem" \
              "description=Tyndrel Agent Client Login Service"; do
    grep -qxF -- "$want" <<<"$cfg" || fail "configuration lacks '$want'"
  done
  # Wine's configuration query leaves the dependencies out; its registry entry holds them.
  svc=$(wine_run reg query 'HKLM\SYSTEM\CurrentControlSet\Services\TDACLI' 2>>"$LOG" | tr -d '\r')
  grep -q 'DependOnService *REG_MULTI_SZ *lanmanworkstation\(\\0\|$\)' <<<"$svc" || fail "dependency missing: $svc"
}
# Stops the service $1 through the service manager and waits until it has stopped.
stop_service() {
  local out
  out=$(svctool stop "$1") || fail "stop $1: $out"
  out=$(svctool wait "$1" 1 60) || fail "$1 not stopped: $out"
}
