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

TDACLI= STANDIN= LOGIN_SERVER=
while [ $# -gt 0 ]; do
  case "$1" in
    --tdacli) TDACLI=$2; shift 2 ;;
    --standin) STANDIN=$2; shift 2 ;;
    --login-server) LOGIN_SERVER=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$TDACLI" ] && [ -n "$STANDIN" ] && [ -n "$LOGIN_SERVER" ] || { echo "missing arguments" >&2; exit 2; }

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
begin_run tdacli-e2e-session
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/*.log "$WORK"/*.err; }
# Drops a request file for the agent, named as the siblings name theirs.
request() { printf '%s\r\n' "$1" >"$APP/$(date +%Y%m%d%H%M%S)-$2.TDACLI"; }
# The greeting of the listener on $1.
greeting() { (exec 3<>"/dev/tcp/127.0.0.1/$1" && timeout 5 head -c 7 <&3) 2>/dev/null; }

mkdir -p "$APP"
cp "$TDACLI" "$APP/tdacli"
: >"$APP/thinterminal.dat"

step "login server simulator on a loopback address of its own"
start_login_server 300
PIDS+=("$SERVER_PID")

step "settings: the simulator, the user, a free listening port"
PORT=$(free_port) || fail "no free port"
settings_text "$PORT" ServiceMessage "$WORK/temp" >"$APP/TDRegInfo.TXT"

step "stand-ins for TDACMT (130 -> 131), TDACSC and TDACLM"
for name in TDACMT TDACSC TDACLM; do
  answer=()
  [ "$name" = TDACMT ] && answer=(--answer 130=131)
  "$STANDIN" --name "$name" --app-dir "$APP" "${answer[@]}" --log "$WORK/$name.log" 2>"$WORK/$name.err" &
  PIDS+=("$!")
done
wait_for 20 test -S "$APP/TDACMT.svc" -a -S "$APP/TDACSC.svc" -a -S "$APP/TDACLM.svc" ||
  fail "the stand-ins did not start"

step "tdacli in user-session mode: no listener before the login"
(cd "$APP" && exec ./tdacli) >"$WORK/tdacli.log" 2>&1 &
AGENT=$!
wait_for 60 has_message "Running As: UserSession (Terminal Server)" || fail "no user-session banner"
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
! messages | grep -q '^Error in ' || fail "the login logged an error: $(messages | grep '^Error in ')"
has_line "$WORK/transcript.txt" "^\[[0-9]+\] C> ID$USER_NAME\$" || fail "no login at the server"
has_line "$WORK/transcript.txt" '^\[[0-9]+\] C> STATUS0$' || fail "no status report at the server"
out=$(greeting "$PORT")
[ "$out" = "|READY|" ] || fail "the listener on $PORT greets with '$out'"
wait_for 20 has_line "$WORK/TDACSC.log" '^135$' || fail "TDACSC never heard of the new port"
wait_for 20 has_line "$WORK/TDACLM.log" '^135$' || fail "TDACLM never heard of the new port"
# Every request file was consumed, the agent's and the siblings'.
wait_for 10 bash -c "! ls '$APP' | grep -qE '\\.(TDACLI|TDACMT|TDACSC|TDACLM)\$'" ||
  fail "request files left: $(ls "$APP")"

step "a STOP=MySelf request file ends the agent: exit status 0, no STOP banner"
request "STOP=MySelf" stop
wait_for 30 bash -c "! kill -0 $AGENT" || fail "the agent did not stop"
wait "$AGENT"
rc=$?
[ "$rc" = 0 ] || fail "exit status $rc"
[ "$(messages | tail -n 1)" = "Trace in TDACLI: Processed Message Request: STOP=MySelf" ] ||
  fail "the trace ends with: $(messages | tail -n 1)"
! messages | grep -qF '*  STOP  *' || fail "the STOP banner was written"
! ls "$APP"/*.TDACLI >/dev/null 2>&1 || fail "the STOP request file is still there"
[ ! -e "$APP/TDACLI.svc" ] || fail "the control endpoint outlived the agent"
stop_all

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: user session end to end"
exit 0
