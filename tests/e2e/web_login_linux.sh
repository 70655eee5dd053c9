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

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
# shellcheck source=tests/e2e/login_lib.sh
source "$(dirname "$0")/login_lib.sh"
SCHEME=
take_options scheme=SCHEME? tdacli=TDACLI standin=STANDIN login-server=LOGIN_SERVER explorer=EXPLORER -- "$@"
[ "$SCHEME" = http ] || [ "$SCHEME" = https ] || { echo "--scheme http|https" >&2; exit 2; }
STORE=/etc/ssl/certs/ca-certificates.crt
if [ "$SCHEME" = https ]; then
  unshare -rm true 2>/dev/null || { echo "SKIP: no user namespaces for the private trust store"; exit 77; }
  [ -f "$STORE" ] || { echo "SKIP: no system CA file $STORE"; exit 77; }
fi

begin_run tdacli-e2e-web
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/*.log "$WORK"/*.err; }

# One task for this machine, under the names the agent may know it by.
TASK="2026-11-14 10:00@2026-11-14 11:00@JOB42"
TASKS=(--grabber-task "$(hostname -f)=$TASK")
[ "$(hostname)" = "$(hostname -f)" ] || TASKS+=(--grabber-task "$(hostname)=$TASK")
start_web_service "$SCHEME" 300 PhoneHome=True "${TASKS[@]}"
prepare_agent FileMessage
start_standins TDACMT:130=131 TDACSC

if [ "$SCHEME" = https ]; then
  # Only inside this process's own mount namespace does the store file hold the test CA.
  launch_service_agent unshare -rm sh -c "mount --bind '$WORK/pki/ca.pem' '$STORE' && exec ./tdacli"
else
  launch_service_agent
fi
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
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via FILE TRIGGERED login." \
  "Trace in TDACLI: Testing Internet Connection ..." \
  "Trace in TDACLI: Internet Connection Successful via [LAN]"
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
server_heard "GET /TDFrameReceiverWebService/TDFrameReceiverWebService.asmx/GrabberMethod\?Machine=[^ ]+" ||
  fail "no phone-home call at the server"
has_line "$WORK/transcript.txt" "^\[[0-9]+\] S> 200 .*SUCCESS\|SENDFRAMES\|$TASK</string>\$" || fail "the server handed out no task"
no_errors_logged
same_login_files
has_line "$APP/TDRegInfo.TXT" "^LocalTemp=$APP/capture\$" || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
has_line "$APP/TDRegInfo.TXT" '^SvrTemp=\\\\fs01\\tdtemp\\$' || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
web_login_seen

step "code 133: the user logs off over $SCHEME"
# The frame folder the capture service keeps (the logoff cleans it up).
mkdir -p "$APP/capture/100Screens"
send_code 133
wait_for 60 has_line "$WORK/TDACSC.log" '^130$' || fail "TDACSC never heard 130"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged off." \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User ($USER_NAME) to Server ($SERVER)"
web_logoff_heard || fail "no logoff at the server"
no_errors_logged

step "code 128 through the control endpoint: the user logs in again"
send_code 128
wait_for 60 has_message "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." ||
  fail "code 128 did not start a login"
two_logins() { [ "$(tr -d '\r' <"$WORK/transcript.txt" | grep -cE 'C> GET /TDLoginWebService/TDLoginWebService.asmx/LoginMethod')" -ge 2 ]; }
wait_for 60 two_logins || fail "the second login did not reach the server"
two_chains() { [ "$(tr -d '\r' <"$WORK/TDACMT.log" | grep -c '^131$')" -ge 2 ]; }
wait_for 60 two_chains || fail "the second login chain did not end"
no_errors_logged

step "stop"
term_agent
stop_all

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: web login end to end over $SCHEME"
exit 0
