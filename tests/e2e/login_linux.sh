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

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
# shellcheck source=tests/e2e/login_lib.sh
source "$(dirname "$0")/login_lib.sh"
take_options tdacli=TDACLI standin=STANDIN login-server=LOGIN_SERVER explorer=EXPLORER -- "$@"
begin_run tdacli-e2e
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/*.log "$WORK"/*.err; }

prepare_login_run ServiceMessage

step "stand-ins with bad arguments refuse to start"
for bad in "--answer 130" "--answer 130=1310" "--answer 130=131," "--answer =131" "--log" "--name"; do
  # shellcheck disable=SC2086
  timeout 10 "$STANDIN" --name TDACMT --app-dir "$APP" $bad 2>/dev/null
  rc=$?
  [ $rc -eq 2 ] || fail "sibling-standin $bad: exit code $rc, expected 2"
done
[ ! -e "$APP/TDACMT.svc" ] || fail "a stand-in with bad arguments opened its endpoint"
start_standins TDACMT:130=131 TDACSC

launch_service_agent
has_message "Listening Port: $PORT" || fail "the agent does not listen on $PORT"
has_message "TD Server: $SERVER(Port: 5003)" || fail "the banner names another server"

step "code 128: the user logs in"
send_code 128
# 131 is the last message of the chain.
wait_for 60 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: User has proper access to both temp folders"
no_errors_logged
! messages | grep -qF 'WIPE OUT' || fail "the login wiped capture activity out"
same_login_files
# The local temp folder named by the server was made, and the settings file keeps both folders.
[ -d "$APP/capture" ] || fail "local temp folder $APP/capture not made"
has_line "$APP/TDRegInfo.TXT" "^LocalTemp=$APP/capture\$" || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
has_line "$APP/TDRegInfo.TXT" '^SvrTemp=\\\\fs01\\tdtemp\\$' || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
# The server heard the login and then the status report.
server_heard "ID$USER_NAME" || fail "no login at the server"
has_line "$WORK/transcript.txt" '^\[[0-9]+\] S> TDLIVEID=48213:10.1.2.3:5020:T$' || fail "no live id sent"
server_heard STATUS0 || fail "no status report at the server"
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
send_code 133
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
no_errors_logged
server_heard "Logoff$USER_NAME:[0-9.]+" || fail "no logoff at the server"
has_line "$WORK/transcript.txt" '^\[[0-9]+\] S> LOGOFF=OKAY$' || fail "the server did not accept the logoff"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'

nuluser_login 60 tdacli
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n130\r\n131\r\n'

step "stop: SIGTERM ends the agent with its STOP banner"
term_agent
ends_with_stop_banner || fail "the trace does not end with the STOP banner"
[ ! -e "$APP/TDACLI.svc" ] || fail "the control endpoint outlived the agent"
stop_all
[ ! -e "$APP/TDACMT.svc" ] && [ ! -e "$APP/TDACSC.svc" ] || fail "a stand-in's endpoint outlived it"

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: login end to end"
exit 0
