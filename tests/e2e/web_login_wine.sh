#!/bin/bash
# A user's logon end to end under Wine through the login web service, against the real service
# manager: tdacli.exe installed and started as the service TDACLI, sibling-standin.exe as TDACMT, the
# host-built simulator's web service on a free loopback port (Wine shares the host's loopback)
#   -> code 128 through the service manager: the login goes out through WinHTTP, TDACMT hears 130 and
#      131, the server hears the login and the status report -> code 133: the logoff reaches the
#      server -> both services stopped and removed (also when a check fails).
# HTTPS: the test CA made here is added to the Root store of the private Wine prefix (its registry),
# never to the host's trust store.
#
#   web_login_wine.sh --scheme http|https --tdacli EXE --standin EXE --svctool EXE --rootstore EXE
#                     --explorer EXE --login-server PROGRAM --work DIR
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
# shellcheck source=tests/e2e/wine_lib.sh
source "$(dirname "$0")/wine_lib.sh"
# shellcheck source=tests/e2e/login_lib.sh
source "$(dirname "$0")/login_lib.sh"
SCHEME=
take_options scheme=SCHEME? tdacli=TDACLI standin=STANDIN svctool=SVCTOOL rootstore=ROOTSTORE explorer=EXPLORER \
  login-server=LOGIN_SERVER work=WORK -- "$@"
[ "$SCHEME" = http ] || [ "$SCHEME" = https ] || { echo "--scheme http|https" >&2; exit 2; }
begin_wine_run
USER_NAME=jsmith
fail() {
  fail_showing "$*" "$(program_trace)" "$WORK"/transcript.txt "$WORK"/TDACMT.log "$LOG" "$WORK"/login-server.err
}

start_web_service "$SCHEME" 600 ""
start_wine
if [ "$SCHEME" = https ]; then
  out=$(wine_run "$ROOTSTORE" add "$(winpath "$WORK/pki/ca.pem")" 2>>"$LOG" | tr -d '\r') ||
    fail "the test CA could not be added to the prefix's Root store: $out"
fi
prepare_agent_settings ServiceMessage
install_services 130=131
start_services
has_message "TD Server: $SERVER" || fail "the banner names another server"

step "code 128 through the service manager: the user logs in over $SCHEME (WinHTTP)"
send_code 128
wait_for 90 has_line "$WORK/TDACMT.log" '^131$' || fail "TDACMT never heard 131"
in_order \
  "Trace in TDACLI: Received notification user ($USER_NAME) just logged in, updating TD Server via SERVICE MESSAGE login." \
  "Trace in TDACLI: Testing Internet Connection ..." \
  "Trace in TDACLI: Internet Connection Successful via [LAN]" \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service" \
  "Trace in TDACLI: WebService_LoginStatus - Performing an OpenURL() on: $BASE/TDLoginWebService/TDLoginWebService.asmx/StatusMethod?WinName=$USER_NAME&Status=0" \
  "Trace in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (0) for User ($USER_NAME)." \
  "Trace in TDACLI: Made 100% Screen Param File ($APP_W\\100ScreenParam.TXT) with values (SCR:010|ATLOGO:2|010|001)"
no_errors_logged
same_bytes "$WORK/TDACMT.log" '130\r\n131\r\n'
same_bytes "$APP/TDIPMASK.INI" '%s\r\n' "[Tyndrel - Agent Client - Valid IP Mask]" "" "[Config]" "IPMask=127.0.0."
same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010|ATLOGO:2|010|001"
web_login_seen

step "code 133: the user logs off over $SCHEME"
mkdir -p "$APP/capture/100Screens"
send_code 133
wait_for 60 has_message "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User ($USER_NAME) to Server ($SERVER)" ||
  fail "no logoff"
web_logoff_heard || fail "no logoff at the server"

step "stop and remove"
stop_service TDACLI
agent_exe /u /s || fail "tdacli.exe /u /s exited with $?"

echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: web login end to end under Wine over $SCHEME"
exit 0
