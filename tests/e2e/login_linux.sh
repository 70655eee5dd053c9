#!/bin/bash
# A user's logon end to end with the real programs on Linux:
#   td-login-server on a loopback address of its own, stand-ins for TDACMT (answers 130 with 131) and
#   TDACSC, tdacli running in a fresh application folder -> `agent-explorer control TDACLI 128` logs
#   the user in: the chain's trace lines, the login result and capture files, 130 and 131 at TDACMT,
#   the login and the status report at the server -> code 133 logs the user off: the logoff at the
#   server, 130 at TDACSC, old frames removed -> code 128 for a user whose server answers hold a NUL:
#   the mask, key and capture parameter files hold the values cut there, with one Warning each -> every
#   program is stopped (also when a check fails).
#
#   login_linux.sh --tdacli F --standin F --login-server F --explorer F
set -u

TDACLI= STANDIN= LOGIN_SERVER= EXPLORER=
while [ $# -gt 0 ]; do
  case "$1" in
    --tdacli) TDACLI=$2; shift 2 ;;
    --standin) STANDIN=$2; shift 2 ;;
    --login-server) LOGIN_SERVER=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$TDACLI" ] && [ -n "$STANDIN" ] && [ -n "$LOGIN_SERVER" ] && [ -n "$EXPLORER" ] ||
  { echo "missing arguments" >&2; exit 2; }

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
begin_run tdacli-e2e
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/*.log "$WORK"/*.err; }
# agent-explorer says what became of the code ("code 128 sent to TDACLI", or why not).
control() { "$EXPLORER" control "$1" "$2" --app-dir "$APP"; }

mkdir -p "$APP"
cp "$TDACLI" "$APP/tdacli"

step "login server simulator on a loopback address of its own"
start_login_server 300
PIDS+=("$SERVER_PID")

step "settings: the simulator, the user, a free listening port below 32768"
PORT=$(free_port) || fail "no free port"
settings_text "$PORT" ServiceMessage "$WORK/temp" >"$APP/TDRegInfo.TXT"

step "stand-ins for TDACMT (130 -> 131) and TDACSC"
for bad in "--answer 130" "--answer 130=1310" "--answer 130=131," "--answer =131" "--log" "--name"; do
  # shellcheck disable=SC2086
  timeout 10 "$STANDIN" --name TDACMT --app-dir "$APP" $bad 2>/dev/null
  rc=$?
  [ $rc -eq 2 ] || fail "sibling-standin $bad: exit code $rc, expected 2"
done
[ ! -e "$APP/TDACMT.svc" ] || fail "a stand-in with bad arguments opened its endpoint"
"$STANDIN" --name TDACMT --app-dir "$APP" --answer 130=131 --log "$WORK/TDACMT.log" 2>"$WORK/TDACMT.err" &
PIDS+=("$!")
"$STANDIN" --name TDACSC --app-dir "$APP" --log "$WORK/TDACSC.log" 2>"$WORK/TDACSC.err" &
PIDS+=("$!")
wait_for 20 test -S "$APP/TDACMT.svc" -a -S "$APP/TDACSC.svc" || fail "the stand-ins did not open their endpoints"

step "tdacli in its application folder"
(cd "$APP" && exec ./tdacli) >"$WORK/tdacli.log" 2>&1 &
AGENT=$!
PIDS+=("$AGENT")
wait_for 60 has_message "Running As: WinService" || fail "no start-up banner"
wait_for 20 test -S "$APP/TDACLI.svc" || fail "no control endpoint TDACLI.svc"
has_message "Listening Port: $PORT" || fail "the agent does not listen on $PORT"
has_message "TD Server: $SERVER(Port: 5003)" || fail "the banner names another server"

step "code 128: the user logs in"
out=$(control TDACLI 128) || fail "code 128 not delivered: $out"
[ "$out" = "code 128 sent to TDACLI" ] || fail "code 128: $out"
# 131 is the last message of the chain.
wait_for 60 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: User has proper access to both temp folders"
! messages | grep -q '^Error in ' || fail "the login logged an error: $(messages | grep '^Error in ')"
! messages | grep -qF 'WIPE OUT' || fail "the login wiped capture activity out"
same_bytes "$APP/TDACFTP.INI" '%s\r\n' "[Tyndrel - Agent Client - FTP Credentials]" "" "[Config]" \
  'ServerTemp=\\fs01\tdtemp\' "FTPServer=ftp.example.com" "UserName=tduser" "EncryptedPassword=9F8E7D6C" \
  "Port=21" "Ssl=False" "AuthTLS=False" "Passive=False" "PassiveUseHostAddr=False" "Protocol=FTP"
same_bytes "$APP/TDIPMASK.INI" '%s\r\n' "[Tyndrel - Agent Client - Valid IP Mask]" "" "[Config]" "IPMask=127.0.0."
same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010|ATLOGO:2|010|001"
same_bytes "$APP/100Screen.KEK" '%s\r\n' "KEK-0001"
same_bytes "$APP/UseWebCam.TXT" '%s\r\n' "WEBCAM=True"
# The local temp folder named by the server was made, and the settings file keeps both folders.
[ -d "$APP/capture" ] || fail "local temp folder $APP/capture not made"
has_line "$APP/TDRegInfo.TXT" "^LocalTemp=$APP/capture\$" || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
has_line "$APP/TDRegInfo.TXT" '^SvrTemp=\\\\fs01\\tdtemp\\$' || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
# The server heard the login and then the status report.
has_line "$WORK/transcript.txt" "^\[[0-9]+\] C> ID$USER_NAME\$" || fail "no login at the server"
has_line "$WORK/transcript.txt" '^\[[0-9]+\] S> TDLIVEID=48213:10.1.2.3:5020:T$' || fail "no live id sent"
has_line "$WORK/transcript.txt" '^\[[0-9]+\] C> STATUS0$' || fail "no status report at the server"
login_line=$(tr -d '\r' <"$WORK/transcript.txt" | grep -nE "C> ID$USER_NAME\$" | head -n 1 | cut -d: -f1)
status_line=$(tr -d '\r' <"$WORK/transcript.txt" | grep -nE 'C> STATUS0$' | head -n 1 | cut -d: -f1)
[ "$login_line" -lt "$status_line" ] || fail "the status report came before the login"
[ ! -s "$WORK/TDACSC.log" ] || fail "TDACSC heard something at login: $(tr -d '\r' <"$WORK/TDACSC.log")"

step "code 133: the user logs off; the 'ATLOGOUT' schedule removes frames 2 days old or more"
# Frames the capture service left behind: the maximum age is the schedule's digit (2).
FRAMES=$APP/capture/100Screens
mkdir -p "$FRAMES"
printf 'x' >"$FRAMES/20261101-old.TVF"
printf 'x' >"$FRAMES/20261101-old.TDK"
printf 'x' >"$FRAMES/today.TVF.ENC"
printf 'x' >"$FRAMES/notes.TXT"
# Noon five calendar days ago: the age is a difference of calendar days in local time.
touch -d "$(date -d '5 days ago' +%Y-%m-%d) 12:00:00" "$FRAMES/20261101-old.TVF" "$FRAMES/20261101-old.TDK" \
  "$FRAMES/notes.TXT"
out=$(control TDACLI 133) || fail "code 133 not delivered: $out"
[ "$out" = "code 133 sent to TDACLI" ] || fail "code 133: $out"
wait_for 60 has_line "$WORK/TDACSC.log" '^130$' || fail "TDACSC never heard 130"
same_bytes "$WORK/TDACSC.log" '130\r\n'
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged off." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Successfully Sent Message [130] to TDACSC!" \
  "Trace in TDACLI: Cleaning up frame files!" \
  "Information in TDACLI: The Tyndrel 100% Screen Capture Component Analyzed (3) Frame File(s) at (Log Off) and Deleted (2)."
for f in 20261101-old.TDK 20261101-old.TVF; do
  messages | grep -qF "Trace in TDACLI: Deleting file ($f) because it is (5) days old. Last Modified is (" ||
    fail "no trace line for the deletion of $f"
done
[ "$(cd "$FRAMES" && ls | sort | tr '\n' ' ')" = "notes.TXT today.TVF.ENC " ] || fail "frames left: $(ls "$FRAMES")"
! messages | grep -q '^Error in ' || fail "an error was logged: $(messages | grep '^Error in ')"
has_line "$WORK/transcript.txt" "^\[[0-9]+\] C> Logoff$USER_NAME:[0-9.]+\$" || fail "no logoff at the server"
has_line "$WORK/transcript.txt" '^\[[0-9]+\] S> LOGOFF=OKAY$' || fail "the server did not accept the logoff"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'

step "code 128 for a user whose server answers hold a NUL: each stored value is cut there"
sed -i "s/^CurrentUser=.*\r\$/CurrentUser=nuluser\r/" "$APP/TDRegInfo.TXT"
out=$(control TDACLI 128) || fail "code 128 not delivered: $out"
# The web-cam trigger is the last file of the post-login work; the first login wrote one line already.
second_post_login() { [ "$(messages | grep -cF 'Trace in TDACLI: WebCam Enabled, Making Trigger File')" -eq 2 ]; }
wait_for 60 second_post_login || fail "the login of nuluser did not run its post-login work"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n130\r\n131\r\n'
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
done < <(find "$APP" -type f ! -name '*-TraceFile.TXT' ! -name '*-Error.LOG' ! -name tdacli -print0)
! messages | grep -q '^Error in ' || fail "an error was logged: $(messages | grep '^Error in ')"

step "stop: SIGTERM ends the agent with its STOP banner"
kill -TERM "$AGENT"
wait_for 30 bash -c "! kill -0 $AGENT" || fail "the agent did not stop"
[ "$(messages | tail -n 4)" = "Information in TDACLI: TD Agent Client Login Service Stopped
Information in TDACLI: **********
Information in TDACLI: *  STOP  *
Information in TDACLI: **********" ] || fail "the trace does not end with the STOP banner"
[ ! -e "$APP/TDACLI.svc" ] || fail "the control endpoint outlived the agent"
stop_all
[ ! -e "$APP/TDACMT.svc" ] && [ ! -e "$APP/TDACSC.svc" ] || fail "a stand-in's endpoint outlived it"

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: login end to end"
exit 0
