#!/bin/bash
# A Terminal Server user's logon end to end on Linux, through request files only:
#   tdacli beside "thinterminal.dat" (user-session mode) in a fresh application folder, td-login-server
#   on a loopback address of its own, stand-ins for TDACMT (answers 130 with 131), TDACSC and TDACLM
#   taking their request files
#   -> nothing listens on the agent's port before the login
#   -> a "Code=128" request file: the login chain runs; TDACMT gets "Code=130" as a file and answers
#      with a "Code=131" request file, which the agent takes while its 128 request still waits; TDACMT
#      gets "Code=131" at the end; the listener opens after the login and greets with "|READY|";
#      TDACSC and TDACLM hear of the new port
#   -> a "STOP=MySelf" request file ends the agent with exit status 0 and without the STOP banner.
#
#   user_session_linux.sh --tdacli F --standin F --login-server F
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
take_options tdacli=TDACLI standin=STANDIN login-server=LOGIN_SERVER -- "$@"
begin_run tdacli-e2e-session
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/*.log "$WORK"/*.err; }

prepare_login_run ServiceMessage
: >"$APP/thinterminal.dat"
start_standins TDACMT:130=131 TDACSC TDACLM

# In user-session mode nothing listens before the login.
launch_agent "Running As: UserSession (Terminal Server)"
has_message "Trace! in TDACLI: THINTERMINAL - Deferring opening of socket until after login!" ||
  fail "the listening socket was not deferred"
port_free "$PORT" || fail "something listens on $PORT before the login"

step "a Code=128 request file: the login chain runs, the siblings get request files"
request "Code=128" logon
wait_for 90 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
wait_for 30 has_message "Trace in TDACLI: Processed Message Request: Code=128" || fail "the 128 request never finished"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: Processed Message Request: Code=131" \
  "Trace in TDACLI: User has proper access to both temp folders" \
  "Trace in TDACLI: Processed Message Request: Code=128"
has_message "Trace in TDACLI: Service is Now Listening on Port ($PORT)" || fail "the listener was not opened"
[ "$(messages | grep -cxF "Trace in TDACLI: Processed Message Request: Code=128")" = 1 ] ||
  fail "the 128 request was handled more than once"
no_errors_logged
server_heard "ID$USER_NAME" || fail "no login at the server"
server_heard STATUS0 || fail "no status report at the server"
out=$(greeting "$PORT")
[ "$out" = "|READY|" ] || fail "the listener on $PORT greets with '$out'"
wait_for 20 has_line "$WORK/TDACSC.log" '^135$' || fail "TDACSC never heard of the new port"
wait_for 20 has_line "$WORK/TDACLM.log" '^135$' || fail "TDACLM never heard of the new port"
# Every request file was consumed, the agent's and the siblings'.
wait_for 10 bash -c "! ls '$APP' | grep -qE '\\.(TDACLI|TDACMT|TDACSC|TDACLM)\$'" ||
  fail "request files left: $(ls "$APP")"

step "a STOP=MySelf request file ends the agent: exit status 0, no STOP banner"
stop_myself 30
[ ! -e "$APP/TDACLI.svc" ] || fail "the control endpoint outlived the agent"
stop_all

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: user session end to end"
exit 0
