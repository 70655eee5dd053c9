#!/bin/bash
# The console's commands end to end with the real programs on Linux: td-login-server, stand-ins for
# TDACMT (answers 130 with 131 and 140 with 141) and TDACSC, tdacli in a fresh application folder,
# and agent-explorer as the console -> login (twice: the second logs the first off), gettracefile
# answered and unanswered, getver over real PE images with a running service, sendframes in 1, 3 and
# 50 pieces, and control's messages -> every program is stopped (also when a check fails).
#
#   console_linux.sh --tdacli F --standin F --login-server F --explorer F --fixtures DIR
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
take_options tdacli=TDACLI standin=STANDIN login-server=LOGIN_SERVER explorer=EXPLORER fixtures=FIXTURES -- "$@"
begin_run tdacli-console
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/*.log "$WORK"/*.err; }
explorer() { "$EXPLORER" "127.0.0.1:$PORT" "$@"; }

prepare_login_run ServiceMessage

step "components: version-resource images beside the agent"
cp "$FIXTURES/full64.dll" "$APP/TDACLI.EXE"
cp "$FIXTURES/prog64.exe" "$APP/tdacmt.exe"
mkdir -p "$APP/RC"
cp "$FIXTURES/full32.dll" "$APP/RC/TDACVC.EXE"
printf '%s\r\n' "[Config]" "ServerPort=5020" >"$APP/RC/TDACLM.INI"

start_standins TDACMT:130=131,140=141 TDACSC
TDACMT_PID=${STANDIN_PID_OF[TDACMT]}
launch_service_agent
has_message "Listening Port: $PORT" || fail "the agent does not listen on $PORT"

SUCCESS="The Tyndrel Agent Client Successfully Logged in User ($USER_NAME).{CRLF}{CRLF}User has proper access to both temp folders."
step "login: the whole login, answered with the login result"
out=$(explorer --raw login) || fail "login: no reply ($?)"
[ "$out" = "|LOGIN|<Status>$SUCCESS" ] || fail "login replied: $out"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
[ ! -s "$WORK/TDACSC.log" ] || fail "TDACSC heard something at the first login"
in_order \
  "Trace in TDACLI: Received LOGIN command from Agent Explorer (IP = 127.0.0.1), calling svcMain_Control()" \
  "Trace in TDACLI: Received request from AgentExplorer at (127.0.0.1) to perform a login." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: User has proper access to both temp folders"
same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010|ATLOGO:2|010|001"
server_heard STATUS0 || fail "no status report at the server"

step "login again: the parameter file of the first login means a logoff first; the console's format"
out=$(explorer login) || fail "second login: no reply ($?)"
[ "$out" = "|LOGIN| <Status>
The Tyndrel Agent Client Successfully Logged in User ($USER_NAME).

User has proper access to both temp folders." ] || fail "second login printed: $out"
same_bytes "$WORK/TDACSC.log" '130\r\n'
server_heard "Logoff$USER_NAME:[0-9.]+" || fail "no logoff before the second login"

step "gettracefile: TDACMT answers 141"
out=$(explorer --raw gettracefile) || fail "gettracefile: no reply ($?)"
[ "$out" = "|GETTRACEFILE|<Status>1" ] || fail "gettracefile replied: $out"
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n130\r\n131\r\n140\r\n'
has_message "Trace in TDACLI: TDACMT Replied With: 1" || fail "no trace line for TDACMT's answer"

step "getver: versions of the images, the running services, the settings"
out=$(explorer --raw getver) || fail "getver: no reply ($?)"
case "$out" in *$'\r'* | *$'\n'*) fail "the report holds a line break" ;; esac
me=$(id -un)
v='3, 0, 0, 7,\[date=[0-9]{4}-[0-9]{2}-[0-9]{2}\],\[time=[0-9]{2}:[0-9]{2}:[0-9]{2}\]'
grep -qE "^\|GETVER\|<Status>Agent Client Components Information:\{CRLF\}\{CRLF\}Component name {21}Version {7}State {17}Account\{CRLF\}\{CRLF\}Agent Login Service: {14}$v,\[size=3,072\] {5}RUNNING {5}$me\{CRLF\}Screen Capture Service : Unavailable!\{CRLF\}Media Transfer Service: {11}2, 1, 0, 15,\[date=[^]]*\],\[time=[^]]*\],\[size=15,872\] {5}RUNNING {5}$me\{CRLF\}Live Monitor Service: {3}Unavailable!\{CRLF\}\{CRLF\}System Event Detector: N/A\{CRLF\}" <<<"$out" ||
  fail "getver's head: $out"
grep -qF "{CRLF}Agent Client Remote Control: 3.0.0.7,[date=" <<<"$out" || fail "getver's remote control row: $out"
grep -qF "{CRLF}Agent Client Remote IP Port: 5020{CRLF}{CRLF}" <<<"$out" || fail "getver's port row: $out"
grep -qF "{CRLF}TD Server: $SERVER{CRLF}" <<<"$out" || fail "getver's settings: $out"
grep -qF "{CRLF}Use FTP: True{CRLF}FTP Server: ftp.example.com{CRLF}FTP Username: tduser{CRLF}FTP Encrypted pw: 9F8E7D6C{CRLF}FTP Port: 21{CRLF}" <<<"$out" ||
  fail "getver's FTP block: $out"
printed=$(explorer getver) || fail "getver (printed): no reply"
grep -qx "Agent Client Remote IP Port: 5020" <<<"$printed" || fail "getver printed: $printed"

step "sendframes in 1, 3 and 50 pieces"
printf '%s\r\n' "10.1.2.3@5020@JOB77@20261114230000@20261114231500" >"$WORK/job.txt"
for n in 1 3 50; do
  rm -f "$APP/SendFrames-JOB77.TSF"
  before=$(messages | grep -cxF "Trace in TDACLI: Chopped protocol saving data until all is received!")
  out=$(explorer --raw sendframes "$WORK/job.txt" --pieces "$n" --gap 150) || fail "sendframes in $n: no reply ($?)"
  [ "$out" = "|OKAY|" ] || fail "sendframes in $n: $out"
  same_bytes "$APP/SendFrames-JOB77.TSF" '%s\r\n' "|SENDFRAMES|10.1.2.3@5020@JOB77@20261114230000@20261114231500"
  after=$(messages | grep -cxF "Trace in TDACLI: Chopped protocol saving data until all is received!")
  # Each piece normally arrives on its own (n - 1 'Chopped' lines); a busy agent may read two at once,
  # never more lines than that. The exact count is proven on a simulated clock by the unit tests.
  [ $((after - before)) -le $((n - 1)) ] || fail "sendframes in $n pieces: $((after - before)) 'Chopped' lines"
  echo "$n pieces: $((after - before)) 'Chopped' lines"
done

step "control says what happened"
out=$("$EXPLORER" control TDACXX 200 --app-dir "$APP" 2>&1)
rc=$?
[ $rc -eq 1 ] || fail "control to a missing service: exit code $rc"
[ "$out" = "code 200 not sent: no service TDACXX is installed (error 1060)" ] || fail "control printed: $out"
out=$("$EXPLORER" control TDACLI 77 --app-dir "$APP" 2>&1)
[ $? -eq 2 ] || fail "control with a system code was not refused: $out"

step "gettracefile without TDACMT: about 11 seconds, then 0"
kill -TERM "$TDACMT_PID"
wait_for 20 ended "$TDACMT_PID" || fail "the TDACMT stand-in did not stop"
out=$(explorer --raw --timeout 30 gettracefile) || fail "gettracefile without TDACMT: no reply ($?)"
[ "$out" = "|GETTRACEFILE|<Status>0" ] || fail "gettracefile without TDACMT: $out"
has_message "Error in TDACLI: No Response From TDACMT!" || fail "no error line for the missing answer"
# Eleven one-second waits between the agent's own stamps of the request and of the error line, give or
# take the trace's one-second resolution.
took=$(( $(stamp_of "Error in TDACLI: No Response From TDACMT!" last) -
         $(stamp_of "Trace in TDACLI: Agent Explorer Asked for Local Trace File, Calling TDACMT!" last) ))
echo "gettracefile without TDACMT: $took s between the agent's stamps"
[ "$took" -ge 10 ] && [ "$took" -le 13 ] || fail "gettracefile without TDACMT waited $took s, expected 11"

step "stop"
term_agent
stop_all

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: console end to end"
exit 0
