#!/bin/bash
# A user's logon end to end through the login web service, with the real programs on Linux:
#   td-login-server --http (or --https with a CA made here) on a free loopback port with a screen-grabber
#   task queued for this machine, stand-ins for TDACMT and TDACSC, tdacli in a fresh application folder
#   whose Server names the web service -> "PerformLogin.TXT" logs the user in over HTTP(S): the trace
#   lines, the login result and capture files, the status report at the server, then the phone-home
#   call fetches the task ("|SENDFRAMES|" -> "SendFrames-JOB42.TSF") -> code 133 logs the user off ->
#   `agent-explorer control TDACLI 128` logs the user in again.
# HTTPS: the agent verifies certificates against the system's store only. It runs in a mount
# namespace of its own in which the store file is replaced by the test CA, so that nothing on this
# machine ever trusts that CA (needs unprivileged user namespaces; exit 77 = skipped without them).
#
#   web_login_linux.sh --scheme http|https --tdacli F --standin F --login-server F --explorer F
set -u

SCHEME= TDACLI= STANDIN= LOGIN_SERVER= EXPLORER=
while [ $# -gt 0 ]; do
  case "$1" in
    --scheme) SCHEME=$2; shift 2 ;;
    --tdacli) TDACLI=$2; shift 2 ;;
    --standin) STANDIN=$2; shift 2 ;;
    --login-server) LOGIN_SERVER=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ "$SCHEME" = http ] || [ "$SCHEME" = https ] || { echo "--scheme http|https" >&2; exit 2; }
[ -n "$TDACLI" ] && [ -n "$STANDIN" ] && [ -n "$LOGIN_SERVER" ] && [ -n "$EXPLORER" ] ||
  { echo "missing arguments" >&2; exit 2; }
STORE=/etc/ssl/certs/ca-certificates.crt
if [ "$SCHEME" = https ]; then
  unshare -rm true 2>/dev/null || { echo "SKIP: no user namespaces for the private trust store"; exit 77; }
  [ -f "$STORE" ] || { echo "SKIP: no system CA file $STORE"; exit 77; }
fi

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
begin_run tdacli-e2e-web
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/*.log "$WORK"/*.err; }
control() { "$EXPLORER" control "$1" "$2" --app-dir "$APP"; }
# The server's transcript holds a request line matching $1 (extended regular expression).
server_heard() { has_line "$WORK/transcript.txt" "^\[[0-9]+\] C> GET $1\$"; }

mkdir -p "$APP"
cp "$TDACLI" "$APP/tdacli"

step "login web service simulator over $SCHEME on a free loopback port"
cat >"$WORK/users.txt" <<'USERS'
# The one agent of this workstation.
[jsmith]
ServerTemp=\\fs01\tdtemp\:FTP@ftp.example.com:tduser:9F8E7D6C
LocalTemp=c:\%appdir%\Capture
LiveID=48213:10.1.2.3:5020:T
KekInfo=KEK-0001
ValidIPMask=127.0.0.
Trace=False
WebCam=true
100Screen=SCR:010|ATLOGO:2|010|001
PhoneHome=True
USERS
# One task for this machine, under the names the agent may know it by.
TASK="2026-11-14 10:00@2026-11-14 11:00@JOB42"
TASKS=(--grabber-task "$(hostname -f)=$TASK")
[ "$(hostname)" = "$(hostname -f)" ] || TASKS+=(--grabber-task "$(hostname)=$TASK")
WEB_ARGS=(--http 127.0.0.1:0)
HOST=127.0.0.1
if [ "$SCHEME" = https ]; then
  mkdir -p "$WORK/pki"
  "$LOGIN_SERVER" --make-test-pki "$WORK/pki" || fail "no test certificates"
  WEB_ARGS=(--https 127.0.0.1:0 --cert "$WORK/pki/server.pem" --key "$WORK/pki/server.key")
  HOST=localhost
fi
"$LOGIN_SERVER" "${WEB_ARGS[@]}" --users "$WORK/users.txt" --transcript "$WORK/transcript.txt" --quiet \
  "${TASKS[@]}" --exit-after 300 2>"$WORK/login-server.err" &
PIDS+=("$!")
wait_for 10 grep -qE "listening on $SCHEME://127.0.0.1:[0-9]+" "$WORK/transcript.txt" || fail "the simulator did not start"
PORT=$(tr -d '\r' <"$WORK/transcript.txt" | head -n 1 | sed -E 's/.*:([0-9]+)$/\1/')
if [ "$SCHEME" = https ]; then SERVER=$HOST:https:$PORT; else SERVER=$HOST:$PORT; fi
BASE=$SCHEME://$HOST:$PORT
echo "web service at $BASE (Server=$SERVER)"

step "settings: the web service, the user, a free listening port below 32768"
LPORT=$(free_port) || fail "no free port"
settings_text "$LPORT" FileMessage "$WORK/temp" >"$APP/TDRegInfo.TXT"

step "stand-ins for TDACMT (130 -> 131) and TDACSC"
"$STANDIN" --name TDACMT --app-dir "$APP" --answer 130=131 --log "$WORK/TDACMT.log" 2>"$WORK/TDACMT.err" &
PIDS+=("$!")
"$STANDIN" --name TDACSC --app-dir "$APP" --log "$WORK/TDACSC.log" 2>"$WORK/TDACSC.err" &
PIDS+=("$!")
wait_for 20 test -S "$APP/TDACMT.svc" -a -S "$APP/TDACSC.svc" || fail "the stand-ins did not open their endpoints"

step "tdacli in its application folder"
if [ "$SCHEME" = https ]; then
  # Only inside this process's own mount namespace does the store file hold the test CA.
  (cd "$APP" && exec unshare -rm sh -c "mount --bind '$WORK/pki/ca.pem' '$STORE' && exec ./tdacli") \
    >"$WORK/tdacli.log" 2>&1 &
else
  (cd "$APP" && exec ./tdacli) >"$WORK/tdacli.log" 2>&1 &
fi
AGENT=$!
PIDS+=("$AGENT")
wait_for 60 has_message "Running As: WinService" || fail "no start-up banner"
wait_for 20 test -S "$APP/TDACLI.svc" || fail "no control endpoint TDACLI.svc"
has_message "TD Server: $SERVER" || fail "the banner names another server"
if [ "$SCHEME" = https ]; then
  grep -q "BEGIN CERTIFICATE" "$STORE" && ! grep -qF "$(sed -n 2p "$WORK/pki/ca.pem")" "$STORE" ||
    fail "the test CA reached the machine's own store"
fi

step "PerformLogin.TXT: the user logs in over $SCHEME, then the agent phones home for tasks"
: >"$APP/PerformLogin.TXT"
wait_for 60 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
wait_for 30 test ! -e "$APP/PerformLogin.TXT" || fail "PerformLogin.TXT was not removed"
wait_for 60 test -f "$APP/SendFrames-JOB42.TSF" || fail "no task file from the phone-home call"
same_bytes "$APP/SendFrames-JOB42.TSF" '%s\r\n' "$TASK"
LOGIN_URL_RE="/TDLoginWebService/TDLoginWebService.asmx/LoginMethod\?WinName=$USER_NAME&LocalIP=[0-9.]+&Extension=4711"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via FILE TRIGGERED login." \
  "Trace in TDACLI: Testing Internet Connection ..." \
  "Trace in TDACLI: Internet Connection Successful via [LAN]"
messages | grep -qE "^Trace in TDACLI: WebService_LoginUser - Performing an OpenURL\(\) on: $BASE$LOGIN_URL_RE\$" ||
  fail "no OpenURL() line for the login"
messages | grep -qF "Trace in TDACLI: WebService_LoginUser - Received the following Response: <?xml version=\"1.0\" encoding=\"utf-8\"?>{CRLF}<string xmlns=\"http://tempuri.org/\">SUCCESS|SERVERTEMP=" ||
  fail "no response line for the login"
in_order \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: User has proper access to both temp folders" \
  "Trace in TDACLI: WebService_LoginStatus - Performing an OpenURL() on: $BASE/TDLoginWebService/TDLoginWebService.asmx/StatusMethod?WinName=$USER_NAME&Status=0" \
  "Trace in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (0) for User ($USER_NAME)." \
  "Trace in TDACLI: The Tyndrel Agent Client Received a Screen Grabber Task"
in_order \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Deleted File After login [$APP/PerformLogin.TXT]" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service"
messages | grep -qE "^Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Performing an OpenURL\(\) on: $BASE/TDFrameReceiverWebService/TDFrameReceiverWebService.asmx/GrabberMethod\?Machine=[^ ]+\$" ||
  fail "no OpenURL() line for the phone-home call"
messages | grep -qF "Trace in TDACLI: Made 'Send Frames' File ($APP/SendFrames-JOB42.TSF) with values ($TASK)" ||
  fail "no trace line for the task file"
server_heard "/TDFrameReceiverWebService/TDFrameReceiverWebService.asmx/GrabberMethod\?Machine=[^ ]+" ||
  fail "no phone-home call at the server"
has_line "$WORK/transcript.txt" "^\[[0-9]+\] S> 200 .*SUCCESS\|SENDFRAMES\|$TASK</string>\$" || fail "the server handed out no task"
! messages | grep -q '^Error in ' || fail "the login logged an error: $(messages | grep '^Error in ')"
same_bytes "$APP/TDACFTP.INI" '%s\r\n' "[Tyndrel - Agent Client - FTP Credentials]" "" "[Config]" \
  'ServerTemp=\\fs01\tdtemp\' "FTPServer=ftp.example.com" "UserName=tduser" "EncryptedPassword=9F8E7D6C" \
  "Port=21" "Ssl=False" "AuthTLS=False" "Passive=False" "PassiveUseHostAddr=False" "Protocol=FTP"
same_bytes "$APP/TDIPMASK.INI" '%s\r\n' "[Tyndrel - Agent Client - Valid IP Mask]" "" "[Config]" "IPMask=127.0.0."
same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010|ATLOGO:2|010|001"
same_bytes "$APP/100Screen.KEK" '%s\r\n' "KEK-0001"
same_bytes "$APP/UseWebCam.TXT" '%s\r\n' "WEBCAM=True"
has_line "$APP/TDRegInfo.TXT" "^LocalTemp=$APP/capture\$" || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
has_line "$APP/TDRegInfo.TXT" '^SvrTemp=\\\\fs01\\tdtemp\\$' || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
server_heard "$LOGIN_URL_RE" || fail "no login at the server"
server_heard "/TDLoginWebService/TDLoginWebService.asmx/StatusMethod\?WinName=$USER_NAME&Status=0" ||
  fail "no status report at the server"

step "code 133: the user logs off over $SCHEME"
# The frame folder the capture service keeps (the logoff cleans it up).
mkdir -p "$APP/capture/100Screens"
out=$(control TDACLI 133) || fail "code 133 not delivered: $out"
[ "$out" = "code 133 sent to TDACLI" ] || fail "code 133: $out"
wait_for 60 has_line "$WORK/TDACSC.log" '^130$' || fail "TDACSC never heard 130"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged off." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User ($USER_NAME) to Server ($SERVER)"
server_heard "/TDLoginWebService/TDLoginWebService.asmx/LogOffMethod\?WinName=$USER_NAME&LocalIP=[0-9.]+" ||
  fail "no logoff at the server"
! messages | grep -q '^Error in ' || fail "an error was logged: $(messages | grep '^Error in ')"

step "code 128 through the control endpoint: the user logs in again"
out=$(control TDACLI 128) || fail "code 128 not delivered: $out"
[ "$out" = "code 128 sent to TDACLI" ] || fail "code 128: $out"
wait_for 60 has_message "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." ||
  fail "code 128 did not start a login"
wait_for 60 bash -c "[ \$(tr -d '\r' <'$WORK/transcript.txt' | grep -cE 'C> GET /TDLoginWebService/TDLoginWebService.asmx/LoginMethod') -ge 2 ]" ||
  fail "the second login did not reach the server"
wait_for 60 bash -c "[ \$(tr -d '\r' <'$WORK/TDACMT.log' | grep -c '^131\$') -ge 2 ]" || fail "the second login chain did not end"
! messages | grep -q '^Error in ' || fail "an error was logged: $(messages | grep '^Error in ')"

step "stop"
kill -TERM "$AGENT"
wait_for 30 bash -c "! kill -0 $AGENT" || fail "the agent did not stop"
stop_all

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: web login end to end over $SCHEME"
exit 0
