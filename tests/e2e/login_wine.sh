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

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
# shellcheck source=tests/e2e/wine_lib.sh
source "$(dirname "$0")/wine_lib.sh"
# shellcheck source=tests/e2e/login_lib.sh
source "$(dirname "$0")/login_lib.sh"
take_options tdacli=TDACLI standin=STANDIN svctool=SVCTOOL explorer=EXPLORER login-server=LOGIN_SERVER work=WORK -- "$@"
begin_wine_run
USER_NAME=jsmith
fail() {
  fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/TDACMT.log "$LOG" "$WORK"/login-server.err
}

step "login server simulator on a loopback address of its own"
start_login_server 600
start_wine
prepare_agent_settings ServiceMessage
install_services 130=131,140=141
out=$(svctool installed TDACLI) || fail "TDACLI not installed: $out"
out=$(svctool installed TDACMT) || fail "TDACMT not installed: $out"
start_services
has_message "Listening Port: $PORT" || fail "the agent does not listen on $PORT"
has_message "TD Server: $SERVER(Port: 5003)" || fail "the banner names another server"

step "code 128 through the service manager: the user logs in"
send_code 128
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
no_errors_logged
same_login_files
[ -d "$APP/capture" ] || fail "local temp folder $APP/capture not made"
server_heard "ID$USER_NAME" || fail "no login at the server"
server_heard STATUS0 || fail "no status report at the server"

step "code 133: the user logs off; Windows 10 gets the TDACSC message as a request file"
# Frames the capture service left behind; the 'ATLOGOUT' schedule removes those 2 days old or more.
FRAMES=$APP/capture/100Screens
mkdir -p "$FRAMES"
printf 'x' >"$FRAMES/20261101-old.TVF"
printf 'x' >"$FRAMES/today.TVF.ENC"
touch -d "$(date -d '5 days ago' +%Y-%m-%d) 12:00:00" "$FRAMES/20261101-old.TVF"
send_code 133
wait_for 60 has_message "Trace in TDACLI: Sent Message [130] to TDACSC!" || fail "no message to TDACSC"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged off." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sent Message [130] to TDACSC!" \
  "Trace in TDACLI: Cleaning up frame files!" \
  "Trace in TDACLI: Deleting file (20261101-old.TVF) because it is (5) days old. Last Modified is ($(date -d '5 days ago' +%Y-%m-%d) 12:00:00 PM)" \
  "Information in TDACLI: The Tyndrel 100% Screen Capture Component Analyzed (2) Frame File(s) at (Log Off) and Deleted (1)."
[ "$(ls "$FRAMES")" = "today.TVF.ENC" ] || fail "frames left: $(ls "$FRAMES")"
no_errors_logged
server_heard "Logoff$USER_NAME:[0-9.]+" || fail "no logoff at the server"
request=$(ls "$APP"/*.TDACSC 2>/dev/null | head -n 1)
[ -n "$request" ] || fail "no request file for TDACSC"
[[ "$(basename "$request")" =~ ^[0-9]{14}\.TDACSC$ ]] || fail "request file name $(basename "$request")"
same_bytes "$request" '%s\r\n' "Code=130"
# TDACMT heard nothing more.
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'

nuluser_login 90 '*.exe'
sed -i "s/^CurrentUser=.*\r\$/CurrentUser=$USER_NAME\r/" "$APP/TDRegInfo.TXT"

step "TDACMT stopped and removed: a message to it fails with 1060"
stop_service TDACMT
wine_run sc delete TDACMT >>"$LOG" 2>&1 || fail "sc delete TDACMT"
out=$(svctool installed TDACMT) && fail "TDACMT still installed"
out=$(control TDACMT 130)
[ "$out" = "code 130 not sent: no service TDACMT is installed (error 1060)" ] ||
  fail "code 130 to the removed TDACMT: $out, expected error 1060"
send_code 128
wait_for 90 server_heard STATUS2 || fail "no status report of the failed check"
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
send_code 128
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
stop_service TDACLI
wait_for 30 has_message "Information in TDACLI: *  STOP  *" || fail "no STOP banner"
ends_with_stop_banner || fail "the trace does not end with the STOP banner"
agent_exe /u /s || fail "tdacli.exe /u /s exited with $?"
out=$(svctool installed TDACLI) && fail "TDACLI still installed"

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: login end to end under Wine"
exit 0
