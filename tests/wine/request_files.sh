#!/bin/bash
# tdacli.exe in user-session mode under Wine ("thinterminal.dat" beside it), driven by request files
# alone, as on a Terminal Server:
#   the host-built login server simulator on a loopback address of its own (Wine shares the host's
#   loopback), sibling-standin.exe started by hand as TDACMT (answers 130 with 131 by request file)
#   -> before the login nothing listens on the agent's port
#   -> a "Code=128" request file: the login chain runs, TDACMT's answer arrives as a request file,
#      "Service is Now Listening on Port (" is logged and the port greets with "|READY|"
#   -> "PerformLogin.TXT" with "TSCC.bat": the codec install starts "MSIExec.exe" (a stand-in beside
#      the agent, found before the system's own) with a hidden window; its process id is the one
#      logged, the size of the log it wrote is logged, and "TSCC.bat" goes
#   -> a "STOP=MySelf" request file ends the program with exit code 0 and without the STOP banner.
#
#   request_files.sh --wine-run <wine-run.sh> --prefix <Wine prefix> --tdacli <tdacli.exe>
#                    --standin <sibling-standin.exe> --installer <msiexec-standin.exe>
#                    --login-server <host td-login-server> --work <dir>
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/../e2e/lib.sh"
# shellcheck source=tests/e2e/wine_lib.sh
source "$(dirname "$0")/../e2e/wine_lib.sh"
take_options wine-run=WINE_RUN prefix=PREFIX tdacli=TDACLI standin=STANDIN installer=INSTALLER \
  login-server=LOGIN_SERVER work=WORK -- "$@"

STARTED=$(date +%s%N)
APP=$WORK/app
LOG=$WORK/wine-stderr.log
USER_NAME=jsmith
rm -rf "$WORK"
mkdir -p "$APP"
cp "$TDACLI" "$APP/tdacli.exe"
cp "$STANDIN" "$APP/sibling-standin.exe"
cp "$INSTALLER" "$APP/MSIExec.exe"
: >"$APP/thinterminal.dat"

AGENT= STANDIN_PID= SERVER_PID=
cleanup() {
  local p
  for p in $AGENT $STANDIN_PID $SERVER_PID; do kill -KILL "$p" 2>/dev/null; done
}
trap cleanup EXIT

fail() {
  fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/TDACMT.log "$WORK"/TDACMT.err \
    "$APP"/TSCCLog.txt "$LOG" "$WORK"/login-server.err
}

step "login server simulator on a loopback address of its own"
start_login_server 500

prepare_agent_settings FileMessage

step "sibling-standin.exe by hand as TDACMT (130 -> 131)"
(cd "$APP" && exec "$WINE_RUN" "--prefix=$PREFIX" sibling-standin.exe --name TDACMT --app-dir "$APP_W" \
  --answer 130=131 --log "$(winpath "$WORK/TDACMT.log")") </dev/null >"$WORK/TDACMT.out" 2>"$WORK/TDACMT.err" &
STANDIN_PID=$!

step "tdacli.exe by hand in user-session mode: nothing listens before the login"
(cd "$APP" && exec "$WINE_RUN" "--prefix=$PREFIX" tdacli.exe) </dev/null >>"$LOG" 2>&1 &
AGENT=$!
wait_for 90 has_message "Running As: UserSession (Terminal Server)" || fail "no user-session banner"
has_message "Trace! in TDACLI: THINTERMINAL - Deferring opening of socket until after login!" ||
  fail "the listening socket was not deferred"
port_free "$PORT" || fail "something listens on $PORT before the login"
! has_message "Trace in TDACLI: Service is Now Listening on Port ($PORT)" || fail "listening before the login"

step "a Code=128 request file: the login, TDACMT's answer by request file, then the listener"
request "Code=128" logon
wait_for 120 has_message "Trace in TDACLI: Processed Message Request: Code=128" || fail "the 128 request never finished"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Trace in TDACLI: Service is Now Listening on Port ($PORT)" \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: Processed Message Request: Code=131" \
  "Trace in TDACLI: User has proper access to both temp folders" \
  "Trace in TDACLI: Processed Message Request: Code=128"
out=$(greeting "$PORT")
[ "$out" = "|READY|" ] || fail "the listener on $PORT greets with '$out'"
wait_for 30 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
server_heard STATUS0 || fail "no status report at the server"
no_errors_logged

step "PerformLogin.TXT with TSCC.bat: the codec install starts the installer hidden"
: >"$APP/TSCC.bat"
: >"$APP/PerformLogin.TXT"
wait_for 90 has_message "Trace in TDACLI: Deleted TSCC.bat after Install!" || fail "no codec install"
[ ! -e "$APP/TSCC.bat" ] || fail "TSCC.bat is still there"
command="MSIExec.exe /package \"${APP_W}\\TSCC.msi\" /quiet /Log \"${APP_W}\\TSCCLog.txt\""
[ -f "$APP/TSCCLog.txt" ] || fail "the installer stand-in did not run"
pid=$(tr -d '\r' <"$APP/TSCCLog.txt" | sed -n 's/^pid=//p')
[ -n "$pid" ] && [ "$pid" -gt 0 ] || fail "no process id in TSCCLog.txt"
size=$(stat -c %s "$APP/TSCCLog.txt")
in_order \
  "Trace in TDACLI: Found TSCC.bat, Installing Codec!" \
  "Trace in TDACLI: INSTALL CODEC: Set Command to [$command] Set LogFileName to [${APP_W}\\TSCCLog.txt]" \
  "Trace in TDACLI: INSTALL CODEC: Shell Execute [$command]" \
  "Trace in TDACLI: INSTALL CODEC: Return Code [$pid], Pausing 20 Seconds" \
  "Trace in TDACLI: INSTALL CODEC: Install Log [${APP_W}\\TSCCLog.txt] has [$size] bytes" \
  "Trace in TDACLI: Deleted TSCC.bat after Install!"
same_bytes "$APP/TSCCLog.txt" '%s\r\n' "pid=$pid" "hidden=yes" "arg=/package" "arg=${APP_W}\\TSCC.msi" "arg=/quiet" \
  "arg=/Log" "arg=${APP_W}\\TSCCLog.txt"
wait_for 90 has_message "Trace in TDACLI: Deleted File After login [${APP_W}\\PerformLogin.TXT]" ||
  fail "no login from the trigger file"
# Its post-login steps asked TDACMT again (by file) and told it of the end of the login.
tdacmt_lines() { [ "$(tr -d '\r' <"$WORK/TDACMT.log" | wc -l)" -ge 4 ]; }
wait_for 60 tdacmt_lines || fail "TDACMT did not hear the second login"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n130\r\n131\r\n'
no_requests() { ! ls "$APP"/*.TDACLI >/dev/null 2>&1; }
wait_for 30 no_requests || fail "request files left: $(ls "$APP"/*.TDACLI)"

step "a STOP=MySelf request file ends the program: exit code 0, no STOP banner"
stop_myself 60
AGENT=

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: request files in user-session mode under Wine"
exit 0
