#!/bin/bash
# A user's logon end to end under Wine through the login web service, against the real service
# manager: tdacli.exe installed and started as the service TDACLI, sibling-standin.exe as TDACMT, the
# host-built simulator's web service on a free loopback port (Wine shares the host's loopback)
#   -> code 128 through the service manager: the login goes out through WinHTTP, TDACMT hears 130 and
#      131, the server hears the login and the status report -> code 133: the logoff reaches the
#      server -> both services stopped and removed (also when a check fails).
# HTTPS: the test CA made here is added to the Root store of the private Wine prefix (its registry),
# never to the host's trust store.
#
#   web_login_wine.sh --scheme http|https --tdacli EXE --standin EXE --svctool EXE --rootstore EXE
#                     --explorer EXE --login-server PROGRAM --work DIR
set -u

SCHEME= TDACLI= STANDIN= SVCTOOL= ROOTSTORE= EXPLORER= LOGIN_SERVER= WORK=
while [ $# -gt 0 ]; do
  case "$1" in
    --scheme) SCHEME=$2; shift 2 ;;
    --tdacli) TDACLI=$2; shift 2 ;;
    --standin) STANDIN=$2; shift 2 ;;
    --svctool) SVCTOOL=$2; shift 2 ;;
    --rootstore) ROOTSTORE=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    --login-server) LOGIN_SERVER=$2; shift 2 ;;
    --work) WORK=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ "$SCHEME" = http ] || [ "$SCHEME" = https ] || { echo "--scheme http|https" >&2; exit 2; }
[ -n "$TDACLI" ] && [ -n "$STANDIN" ] && [ -n "$SVCTOOL" ] && [ -n "$ROOTSTORE" ] && [ -n "$EXPLORER" ] &&
  [ -n "$LOGIN_SERVER" ] && [ -n "$WORK" ] || { echo "missing arguments" >&2; exit 2; }

STARTED=$(date +%s%N)
WINE=/usr/lib/wine/wine64
WINESERVER=/usr/lib/wine/wineserver
[ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)
APP=$WORK/app
LOG=$WORK/wine-stderr.log
USER_NAME=jsmith
export WINEPREFIX=$WORK/prefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
export DISPLAY=

rm -rf "$WORK"
mkdir -p "$APP"
cp "$TDACLI" "$APP/tdacli.exe"
cp "$STANDIN" "$APP/sibling-standin.exe"

SERVER_PID=
WINE_UP=
cleanup() {
  if [ -n "$WINE_UP" ]; then
    "$WINE" "$SVCTOOL" stop TDACMT >/dev/null 2>&1
    "$WINE" "$SVCTOOL" stop TDACLI >/dev/null 2>&1
    "$WINE" sc delete TDACMT >/dev/null 2>&1
    (cd "$APP" && "$WINE" tdacli.exe /u /s >/dev/null 2>&1)
    "$WINESERVER" -k >/dev/null 2>&1
  fi
  if [ -n "$SERVER_PID" ]; then
    kill -TERM "$SERVER_PID" 2>/dev/null
    wait "$SERVER_PID" 2>/dev/null
  fi
}
trap cleanup EXIT

fail() {
  fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/TDACMT.log "$LOG" "$WORK"/login-server.err
}
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
svctool() { "$WINE" "$SVCTOOL" "$@" 2>>"$LOG" | tr -d '\r'; return "${PIPESTATUS[0]}"; }
control() { "$WINE" "$EXPLORER" control "$1" "$2" 2>>"$LOG" | tr -d '\r'; return "${PIPESTATUS[0]}"; }
winpath() { "$WINE" winepath -w "$1" 2>>"$LOG" | tr -d '\r'; }
server_heard() { has_line "$WORK/transcript.txt" "^\[[0-9]+\] C> GET $1\$"; }

step "login web service simulator over $SCHEME on a free loopback port"
cat >"$WORK/users.txt" <<'USERS'
[jsmith]
ServerTemp=\\fs01\tdtemp\:FTP@ftp.example.com:tduser:9F8E7D6C
LocalTemp=c:\%appdir%\Capture
LiveID=48213:10.1.2.3:5020:T
KekInfo=KEK-0001
ValidIPMask=127.0.0.
Trace=False
WebCam=true
100Screen=SCR:010|ATLOGO:2|010|001
USERS
WEB_ARGS=(--http 127.0.0.1:0)
if [ "$SCHEME" = https ]; then
  mkdir -p "$WORK/pki"
  "$LOGIN_SERVER" --make-test-pki "$WORK/pki" || fail "no test certificates (simulator built without the web service?)"
  WEB_ARGS=(--https 127.0.0.1:0 --cert "$WORK/pki/server.pem" --key "$WORK/pki/server.key")
fi
"$LOGIN_SERVER" "${WEB_ARGS[@]}" --users "$WORK/users.txt" --transcript "$WORK/transcript.txt" --quiet \
  --exit-after 600 2>"$WORK/login-server.err" &
SERVER_PID=$!
wait_for 10 grep -qE "listening on $SCHEME://127.0.0.1:[0-9]+" "$WORK/transcript.txt" ||
  fail "the simulator did not start (built without the web service?)"
PORT=$(tr -d '\r' <"$WORK/transcript.txt" | head -n 1 | sed -E 's/.*:([0-9]+)$/\1/')
if [ "$SCHEME" = https ]; then SERVER=localhost:https:$PORT; BASE=https://localhost:$PORT
else SERVER=127.0.0.1:$PORT; BASE=http://127.0.0.1:$PORT; fi

step "private prefix and service manager"
WINE_UP=1
WINEDEBUG=-all "$WINE" wineboot -i >/dev/null 2>&1 || fail "wineboot -i"
"$WINESERVER" -w
"$WINESERVER" -p
"$WINE" wineboot >>"$LOG" 2>&1 || fail "wineboot"
if [ "$SCHEME" = https ]; then
  out=$("$WINE" "$ROOTSTORE" add "$(winpath "$WORK/pki/ca.pem")" 2>>"$LOG" | tr -d '\r') ||
    fail "the test CA could not be added to the prefix's Root store: $out"
fi

step "settings: the web service, the user, a free listening port below 32768"
LPORT=$(free_port) || fail "no free port"
APP_W=$(winpath "$APP")
[ -n "$APP_W" ] || fail "no Windows path for $APP"
settings_text "$LPORT" ServiceMessage "$(winpath "$WORK/temp")" >"$APP/TDRegInfo.TXT"

step "install and start tdacli.exe and the stand-in as TDACMT"
(cd "$APP" && "$WINE" tdacli.exe /s >>"$LOG" 2>&1) || fail "tdacli.exe /s exited with $?"
"$WINE" sc create TDACMT binpath= "\"$APP_W\\sibling-standin.exe\" --name TDACMT --app-dir $APP_W --answer 130=131 --log $(winpath "$WORK/TDACMT.log")" \
  >>"$LOG" 2>&1 || fail "sc create TDACMT"
out=$(svctool start TDACMT) || fail "StartService(TDACMT): $out"
out=$(svctool wait TDACMT 4 60) || fail "TDACMT not running: $out"
out=$(svctool start TDACLI) || fail "StartService(TDACLI): $out"
out=$(svctool wait TDACLI 4 60) || fail "TDACLI not running: $out"
wait_for 60 has_message "Running As: WinService" || fail "no start-up banner"
has_message "TD Server: $SERVER" || fail "the banner names another server"

step "code 128 through the service manager: the user logs in over $SCHEME (WinHTTP)"
out=$(control TDACLI 128); [ "$out" = "code 128 sent to TDACLI" ] || fail "code 128 not delivered: $out"
wait_for 90 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
LOGIN_URL_RE="/TDLoginWebService/TDLoginWebService.asmx/LoginMethod\?WinName=$USER_NAME&LocalIP=[0-9.]+&Extension=4711"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Trace in TDACLI: Testing Internet Connection ..." \
  "Trace in TDACLI: Internet Connection Successful via [LAN]" \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: WebService_LoginStatus - Performing an OpenURL() on: $BASE/TDLoginWebService/TDLoginWebService.asmx/StatusMethod?WinName=$USER_NAME&Status=0" \
  "Trace in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (0) for User ($USER_NAME)." \
  "Trace in TDACLI: Made 100% Screen Param File ($APP_W\\100ScreenParam.TXT) with values (SCR:010|ATLOGO:2|010|001)"
messages | grep -qE "^Trace in TDACLI: WebService_LoginUser - Performing an OpenURL\(\) on: $BASE$LOGIN_URL_RE\$" ||
  fail "no OpenURL() line for the login"
! messages | grep -q '^Error in ' || fail "the login logged an error: $(messages | grep '^Error in ')"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
same_bytes "$APP/TDIPMASK.INI" '%s\r\n' "[Tyndrel - Agent Client - Valid IP Mask]" "" "[Config]" "IPMask=127.0.0."
same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010|ATLOGO:2|010|001"
server_heard "$LOGIN_URL_RE" || fail "no login at the server"
server_heard "/TDLoginWebService/TDLoginWebService.asmx/StatusMethod\?WinName=$USER_NAME&Status=0" ||
  fail "no status report at the server"

step "code 133: the user logs off over $SCHEME"
mkdir -p "$APP/capture/100Screens"
out=$(control TDACLI 133); [ "$out" = "code 133 sent to TDACLI" ] || fail "code 133 not delivered: $out"
wait_for 60 has_message "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User ($USER_NAME) to Server ($SERVER)" ||
  fail "no logoff"
server_heard "/TDLoginWebService/TDLoginWebService.asmx/LogOffMethod\?WinName=$USER_NAME&LocalIP=[0-9.]+" ||
  fail "no logoff at the server"

step "stop and remove"
out=$(svctool stop TDACLI) || fail "stop TDACLI: $out"
out=$(svctool wait TDACLI 1 60) || fail "TDACLI not stopped: $out"
(cd "$APP" && "$WINE" tdacli.exe /u /s >>"$LOG" 2>&1) || fail "tdacli.exe /u /s exited with $?"

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: web login end to end under Wine over $SCHEME"
exit 0
