#!/bin/bash
# Logins and logoffs asked for by trigger files, end to end with the real programs on Linux:
#   td-login-server on a loopback address of its own, stand-ins for TDACMT (answers 130 with 131) and
#   TDACSC, tdacli in the "FileMessage" method in a fresh application folder
#   -> "PerformLogin.TXT" dropped in: the user is logged in, the post-login steps run, the file goes
#   -> "PerformLogoff.TXT": the user is logged off, the file goes
#   -> the server stopped, "PerformLogin.TXT" again: the attempt fails, the retry is announced, the
#      file stays and the next attempt follows after the 15-s wait and the 3-s interval
#   -> SIGTERM stops the agent; every program is stopped (also when a check fails).
#
#   trigger_files_linux.sh --tdacli F --standin F --login-server F
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
take_options tdacli=TDACLI standin=STANDIN login-server=LOGIN_SERVER -- "$@"
begin_run tdacli-e2e-triggers
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/*.log "$WORK"/*.err; }
count_message() { messages | grep -cxF -- "$1"; }

prepare_login_run FileMessage
start_standins TDACMT:130=131 TDACSC
launch_agent "Notification Method: FileMessage"

step "PerformLogin.TXT: the user logs in and the file goes"
: >"$APP/PerformLogin.TXT"
wait_for 60 has_message "Trace in TDACLI: Deleted File After login [$APP/PerformLogin.TXT]" ||
  fail "no login from the trigger file"
[ ! -e "$APP/PerformLogin.TXT" ] || fail "PerformLogin.TXT is still there"
wait_for 60 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via FILE TRIGGERED login." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Deleted File After login [$APP/PerformLogin.TXT]" \
  "Trace in TDACLI: Saved [TDLiveID=48213] to [$APP/TDLiveID.INI]" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: User has proper access to both temp folders"
no_errors_logged
same_bytes "$APP/TDLiveID.INI" '%s\r\n' "[LiveID]" "TDLiveID=48213" "RepeaterIP=10.1.2.3" "RepeaterPort=5020" \
  "PeerToPeerCapable=True"
same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010|ATLOGO:2|010|001"
server_heard "ID$USER_NAME" || fail "no login at the server"
server_heard STATUS0 || fail "no status report at the server"

step "PerformLogoff.TXT: the user logs off and the file goes"
: >"$APP/PerformLogoff.TXT"
wait_for 60 has_message "Trace in TDACLI: Deleted File After LogOff [$APP/PerformLogoff.TXT]" ||
  fail "no logoff from the trigger file"
[ ! -e "$APP/PerformLogoff.TXT" ] || fail "PerformLogoff.TXT is still there"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged off." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Deleted File After LogOff [$APP/PerformLogoff.TXT]"
server_heard "Logoff$USER_NAME:[0-9.]+" || fail "no logoff at the server"
wait_for 20 has_line "$WORK/TDACSC.log" '^130$' || fail "TDACSC never heard 130"

step "the server stopped: the login fails, the retry is announced and the file stays"
kill -TERM "$SERVER_PID"
wait "$SERVER_PID" 2>/dev/null
login_line="Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via FILE TRIGGERED login."
: >"$APP/PerformLogin.TXT"
# A refused connection costs the full 30-s connect stage.
wait_for 90 has_message "Trace in TDACLI: LOGIN NOT OKAY, Delaying 15 Seconds, Trying Again [Attempt=1]." ||
  fail "no retry announced"
has_message "Error in TDACLI: Login Attempt - Timeout connecting socket for login" || fail "no connect time-out logged"
[ -e "$APP/PerformLogin.TXT" ] || fail "PerformLogin.TXT went after a failed login"
# The next attempt follows the 15-s wait and the 3-s interval: 18 s between the agent's own stamps of
# the announcement and of the attempt, give or take the trace's one-second resolution.
retry_line="Trace in TDACLI: LOGIN NOT OKAY, Delaying 15 Seconds, Trying Again [Attempt=1]."
third_login() { [ "$(count_message "$login_line")" -ge 3 ]; }
wait_for 60 third_login || fail "no second attempt"
waited=$(( $(stamp_of "$login_line" 3) - $(stamp_of "$retry_line") ))
echo "second attempt $waited s after the retry was announced (agent's stamps)"
[ "$waited" -ge 17 ] && [ "$waited" -le 20 ] || fail "the second attempt came $waited s after the retry was announced, expected 18"
[ -e "$APP/PerformLogin.TXT" ] || fail "PerformLogin.TXT went during the retries"

step "stop: SIGTERM ends the agent with its STOP banner"
term_agent
[ "$(messages | tail -n 1)" = "Information in TDACLI: **********" ] || fail "the trace does not end with the STOP banner"
stop_all

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: trigger files end to end"
exit 0
