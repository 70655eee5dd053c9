#!/bin/bash
# A user's logon end to end under Wine, against the real service manager:
#   tdacli.exe installed ("/s") and started as the service TDACLI; sibling-standin.exe installed and
#   started as the service TDACMT, answering 130 with 131 and 140 with 141; the Linux login server
#   simulator on a loopback address of its own (Wine shares the host's loopback)
#   -> code 128 to TDACLI through the service manager: the login chain runs, TDACMT hears 130 and 131,
#      the server hears the login and the status report
#   -> code 133: the logoff reaches the server; Windows 10 gets the TDACSC message as a request file
#   -> code 128 for a user whose server answers hold a NUL: the stored values are cut there
#   -> TDACMT stopped and removed, code 128 again: the message to the missing sibling logs 1060
#   -> a server that resets the connection in the middle of a login: the Broadcast error line with
#      10054, then the protocol time-out
#   -> both services stopped and removed (also when a check fails).
# Runs in a private Wine prefix with its own service manager.
#
#   login_wine.sh --tdacli EXE --standin EXE --svctool EXE --explorer EXE --login-server PROGRAM --work DIR
#
# The codes go to TDACLI with `agent-explorer control` (through the service manager); svctool installs
# nothing but starts, stops, queries and waits for the services.
set -u

TDACLI= STANDIN= SVCTOOL= EXPLORER= LOGIN_SERVER= WORK=
while [ $# -gt 0 ]; do
  case "$1" in
    --tdacli) TDACLI=$2; shift 2 ;;
    --standin) STANDIN=$2; shift 2 ;;
    --svctool) SVCTOOL=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    --login-server) LOGIN_SERVER=$2; shift 2 ;;
    --work) WORK=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$TDACLI" ] && [ -n "$STANDIN" ] && [ -n "$SVCTOOL" ] && [ -n "$EXPLORER" ] && [ -n "$LOGIN_SERVER" ] &&
  [ -n "$WORK" ] ||
  { echo "missing arguments" >&2; exit 2; }

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
# The siblings live in the agent's application folder.
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
# What became of the code ("code 128 sent to TDACLI", or why not).
control() { "$WINE" "$EXPLORER" control "$1" "$2" 2>&1 | tr -d '\r'; return "${PIPESTATUS[0]}"; }
winpath() { "$WINE" winepath -w "$1" 2>>"$LOG" | tr -d '\r'; }

step "login server simulator on a loopback address of its own"
start_login_server 600

step "private prefix and service manager"
WINE_UP=1
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

step "settings: the simulator, the user, a free listening port below 32768"
PORT=$(free_port) || fail "no free port"
APP_W=$(winpath "$APP")
[ -n "$APP_W" ] || fail "no Windows path for $APP"
settings_text "$PORT" ServiceMessage "$(winpath "$WORK/temp")" >"$APP/TDRegInfo.TXT"

step "install: tdacli.exe /s, and the stand-in as TDACMT"
(cd "$APP" && "$WINE" tdacli.exe /s >>"$LOG" 2>&1) || fail "tdacli.exe /s exited with $?"
out=$(svctool installed TDACLI) || fail "TDACLI not installed: $out"
"$WINE" sc create TDACMT binpath= "\"$APP_W\\sibling-standin.exe\" --name TDACMT --app-dir $APP_W --answer 130=131,140=141 --log $(winpath "$WORK/TDACMT.log")" \
  >>"$LOG" 2>&1 || fail "sc create TDACMT"
out=$(svctool installed TDACMT) || fail "TDACMT not installed: $out"

step "start both services through the service manager"
out=$(svctool start TDACMT) || fail "StartService(TDACMT): $out"
out=$(svctool wait TDACMT 4 60) || fail "TDACMT not running: $out"
out=$(svctool start TDACLI) || fail "StartService(TDACLI): $out"
out=$(svctool wait TDACLI 4 60) || fail "TDACLI not running: $out"
wait_for 60 has_message "Running As: WinService" || fail "no start-up banner"
has_message "Listening Port: $PORT" || fail "the agent does not listen on $PORT"
has_message "TD Server: $SERVER(Port: 5003)" || fail "the banner names another server"

step "code 128 through the service manager: the user logs in"
out=$(control TDACLI 128); [ "$out" = "code 128 sent to TDACLI" ] || fail "code 128 not delivered: $out"
# 131 is the last message of the chain.
wait_for 90 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: User has proper access to both temp folders" \
  "Trace in TDACLI: Login Server Received UserName OK, Sending STATUS (0)" \
  "Trace in TDACLI: Made 100% Screen KEK   File ($APP_W\\100Screen.KEK) with values (KEK-0001)" \
  "Trace in TDACLI: Made 100% Screen Param File ($APP_W\\100ScreenParam.TXT) with values (SCR:010|ATLOGO:2|010|001)" \
  "Trace in TDACLI: WebCam Enabled, Making Trigger File ($APP_W\\UseWebCam.TXT)"
! messages | grep -q '^Error in ' || fail "the login logged an error: $(messages | grep '^Error in ')"
same_bytes "$APP/TDACFTP.INI" '%s\r\n' "[Tyndrel - Agent Client - FTP Credentials]" "" "[Config]" \
  'ServerTemp=\\fs01\tdtemp\' "FTPServer=ftp.example.com" "UserName=tduser" "EncryptedPassword=9F8E7D6C" \
  "Port=21" "Ssl=False" "AuthTLS=False" "Passive=False" "PassiveUseHostAddr=False" "Protocol=FTP"
same_bytes "$APP/TDIPMASK.INI" '%s\r\n' "[Tyndrel - Agent Client - Valid IP Mask]" "" "[Config]" "IPMask=127.0.0."
same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010|ATLOGO:2|010|001"
same_bytes "$APP/100Screen.KEK" '%s\r\n' "KEK-0001"
same_bytes "$APP/UseWebCam.TXT" '%s\r\n' "WEBCAM=True"
[ -d "$APP/capture" ] || fail "local temp folder $APP/capture not made"
has_line "$WORK/transcript.txt" "^\[[0-9]+\] C> ID$USER_NAME\$" || fail "no login at the server"
has_line "$WORK/transcript.txt" '^\[[0-9]+\] C> STATUS0$' || fail "no status report at the server"

step "code 133: the user logs off; Windows 10 gets the TDACSC message as a request file"
# Frames the capture service left behind; the 'ATLOGOUT' schedule removes those 2 days old or more.
FRAMES=$APP/capture/100Screens
mkdir -p "$FRAMES"
printf 'x' >"$FRAMES/20261101-old.TVF"
printf 'x' >"$FRAMES/today.TVF.ENC"
touch -d "$(date -d '5 days ago' +%Y-%m-%d) 12:00:00" "$FRAMES/20261101-old.TVF"
out=$(control TDACLI 133); [ "$out" = "code 133 sent to TDACLI" ] || fail "code 133 not delivered: $out"
wait_for 60 has_message "Trace in TDACLI: Sent Message [130] to TDACSC!" || fail "no message to TDACSC"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged off." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sent Message [130] to TDACSC!" \
  "Trace in TDACLI: Cleaning up frame files!" \
  "Trace in TDACLI: Deleting file (20261101-old.TVF) because it is (5) days old. Last Modified is ($(date -d '5 days ago' +%Y-%m-%d) 12:00:00 PM)" \
  "Information in TDACLI: The Tyndrel 100% Screen Capture Component Analyzed (2) Frame File(s) at (Log Off) and Deleted (1)."
[ "$(ls "$FRAMES")" = "today.TVF.ENC" ] || fail "frames left: $(ls "$FRAMES")"
! messages | grep -q '^Error in ' || fail "an error was logged: $(messages | grep '^Error in ')"
has_line "$WORK/transcript.txt" "^\[[0-9]+\] C> Logoff$USER_NAME:[0-9.]+\$" || fail "no logoff at the server"
request=$(ls "$APP"/*.TDACSC 2>/dev/null | head -n 1)
[ -n "$request" ] || fail "no request file for TDACSC"
[[ "$(basename "$request")" =~ ^[0-9]{14}\.TDACSC$ ]] || fail "request file name $(basename "$request")"
same_bytes "$request" '%s\r\n' "Code=130"
# TDACMT heard nothing more.
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'

step "code 128 for a user whose server answers hold a NUL: each stored value is cut there"
sed -i "s/^CurrentUser=.*\r\$/CurrentUser=nuluser\r/" "$APP/TDRegInfo.TXT"
out=$(control TDACLI 128); [ "$out" = "code 128 sent to TDACLI" ] || fail "code 128 not delivered: $out"
# The web-cam trigger is the last file of the post-login work; the first login wrote one line already.
second_post_login() { [ "$(messages | grep -cF 'Trace in TDACLI: WebCam Enabled, Making Trigger File')" -eq 2 ]; }
wait_for 90 second_post_login || fail "the login of nuluser did not run its post-login work"
has_message "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User (nuluser) to Server ($SERVER)" ||
  fail "nuluser was not logged in"
same_bytes "$APP/TDIPMASK.INI" '%s\r\n' "[Tyndrel - Agent Client - Valid IP Mask]" "" "[Config]" "IPMask=10.9."
same_bytes "$APP/100Screen.KEK" '%s\r\n' "KEK-9"
same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010"
for name in IPMask KekInfo HundredScreensParam; do
  [ "$(messages | grep -cxF "Warning in TDACLI: The value of ($name) held a line break and was cut at it.")" -eq 1 ] ||
    fail "not one Warning line for $name"
done
while IFS= read -r -d '' f; do
  [ "$(tr -cd '\000' <"$f" | wc -c)" -eq 0 ] || fail "a NUL reached $f"
done < <(find "$APP" -type f ! -name '*-TraceFile.TXT' ! -name '*-Error.LOG' ! -name '*.exe' -print0)
! messages | grep -q '^Error in ' || fail "an error was logged: $(messages | grep '^Error in ')"
sed -i "s/^CurrentUser=.*\r\$/CurrentUser=$USER_NAME\r/" "$APP/TDRegInfo.TXT"

step "TDACMT stopped and removed: a message to it fails with 1060"
out=$(svctool stop TDACMT) || fail "stop TDACMT: $out"
out=$(svctool wait TDACMT 1 60) || fail "TDACMT not stopped: $out"
"$WINE" sc delete TDACMT >>"$LOG" 2>&1 || fail "sc delete TDACMT"
out=$(svctool installed TDACMT) && fail "TDACMT still installed"
out=$(control TDACMT 130)
[ "$out" = "code 130 not sent: no service TDACMT is installed (error 1060)" ] ||
  fail "code 130 to the removed TDACMT: $out, expected error 1060"
out=$(control TDACLI 128); [ "$out" = "code 128 sent to TDACLI" ] || fail "code 128 not delivered: $out"
wait_for 90 has_line "$WORK/transcript.txt" '^\[[0-9]+\] C> STATUS2$' || fail "no status report of the failed check"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Error in TDACLI: Error Sending Message 130 to TDACMT: 1060" \
  "Warning in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (2) for User ($USER_NAME). However the user does not have proper permissions!"

step "a login server that resets the connection in the middle: the Broadcast error event, then the time-out"
kill -TERM "$SERVER_PID" 2>/dev/null
wait "$SERVER_PID" 2>/dev/null
start_login_server 300 --fault reset-mid
# Code 128 reads the settings again, and with them the new server.
sed -i "s/^Server=.*\r\$/Server=$SERVER\r/" "$APP/TDRegInfo.TXT"
out=$(control TDACLI 128); [ "$out" = "code 128 sent to TDACLI" ] || fail "code 128 not delivered: $out"
timeout_line="Error in TDACLI: Login Attempt - Timeout executing protocol"
wait_for 90 has_message "$timeout_line" || fail "no protocol time-out after the reset"
has_line "$WORK/transcript.txt" '^\[1\] -- reset by the server in the middle of the exchange$' || fail "the server did not reset"
contact="Trace in TDACLI: Contacting the TD Login Server for Login at ($SERVER:5003)"
messages | grep -xF -A 3 -- "$contact" >"$WORK/reset.txt"
printf '%s\n' "$contact" "Trace in TDACLI: Connected To Login Server OK, Sending UserName ($USER_NAME)" \
  "Error in TDACLI: The Broadcast WinSock Control Received The Error, 10054: Connection reset by peer" \
  "$timeout_line" >"$WORK/reset.expected"
diff "$WORK/reset.expected" "$WORK/reset.txt" || fail "the login against the resetting server logged other lines"
# The protocol stage's 30 s, between the agent's own stamps.
waited=$(( $(stamp_of "$timeout_line") - $(stamp_of "$contact") ))
echo "protocol time-out $waited s after the contact line (agent's stamps)"
[ "$waited" -ge 29 ] && [ "$waited" -le 32 ] || fail "the time-out came $waited s after the contact line, expected 30"

step "stop and remove TDACLI"
out=$(svctool stop TDACLI) || fail "stop TDACLI: $out"
out=$(svctool wait TDACLI 1 60) || fail "TDACLI not stopped: $out"
wait_for 30 has_message "Information in TDACLI: *  STOP  *" || fail "no STOP banner"
[ "$(messages | tail -n 4)" = "Information in TDACLI: TD Agent Client Login Service Stopped
Information in TDACLI: **********
Information in TDACLI: *  STOP  *
Information in TDACLI: **********" ] || fail "the trace does not end with the STOP banner"
(cd "$APP" && "$WINE" tdacli.exe /u /s >>"$LOG" 2>&1) || fail "tdacli.exe /u /s exited with $?"
out=$(svctool installed TDACLI) && fail "TDACLI still installed"

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: login end to end under Wine"
exit 0
