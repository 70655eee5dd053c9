#!/bin/bash
# tdacli.exe as a real Windows service under Wine, end to end:
#   install with "/s" -> start through the service manager -> start-up banner "Running As: WinService"
#   -> user-defined control code 200 and pause/continue reach the agent -> a NUL in a SET value is cut
#   -> closing the hidden form and the end of a session are refused, each logged once -> stop through
#   the service manager -> STOP banner -> beside "thinterminal.dat" a start ends at once as failed with
#   its own exit code and a trace line -> "/u /s" removes the service and its event source.
# Runs in a private Wine prefix whose service manager is started by this script with
# WINEDEBUG=+eventlog, so that the service's event-log entries (Wine writes them to its "eventlog"
# debug channel) land in wine-stderr.log and can be checked too.
#
#   service_roundtrip.sh --tdacli <tdacli.exe> --svctool <svctool.exe> --work <dir> --revision <n>
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/../e2e/lib.sh"
# shellcheck source=tests/e2e/wine_lib.sh
source "$(dirname "$0")/../e2e/wine_lib.sh"
take_options tdacli=TDACLI svctool=SVCTOOL work=WORK revision=REVISION -- "$@"
begin_wine_run +eventlog
fail() { fail_showing "$*" "$(program_trace)" "$LOG"; }

cp "$TDACLI" "$APP/tdacli.exe"
# Any free listening port: the fixed default may be taken on a build machine.
printf 'ListeningPorts=0,0,0,0\r\n' >"$APP/TDRegInfo.TXT"
start_wine

step "version resource"
ver=$(svctool version "$(cd "$APP" && pwd)/tdacli.exe") || fail "no version resource: $ver"
echo "$ver"
for want in "fixed=3.0.0.$REVISION" "CompanyName=Tyndrel" "FileDescription=TD - Agent Client Login Service" \
            "FileVersion=3.0.0.$REVISION" "InternalName=tdacli" "OriginalFilename=tdacli.exe" \
            "ProductName=Tyndrel Agent Client" "ProductVersion=3.0.0.$REVISION"; do
  grep -qxF -- "$want" <<<"$ver" || fail "version resource lacks '$want'"
done
grep -q '^LegalCopyright=.*Tyndrel' <<<"$ver" || fail "version resource lacks the copyright"

step "install: tdacli.exe /s"
agent_exe /s || fail "tdacli.exe /s exited with $?"
out=$(svctool installed TDACLI) || fail "service not installed: $out"
check_service_config
grep -q '^binary=.*\\app\\tdacli.exe"\?$' <<<"$cfg" || fail "unexpected binary path"
reg=$("$WINE" reg query 'HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\TDACLI' 2>>"$LOG" | tr -d '\r')
grep -q 'EventMessageFile.*REG_EXPAND_SZ.*\\app\\tdacli.exe$' <<<"$reg" || fail "event source not registered: $reg"
grep -q 'TypesSupported.*0x7' <<<"$reg" || fail "event source types: $reg"

step "a control code to a stopped service"
out=$(svctool control TDACLI 200); grep -qx 'result=1062' <<<"$out" || fail "expected 1062, got: $out"

step "start through the service manager"
out=$(svctool start TDACLI) || fail "StartService: $out"
out=$(svctool wait TDACLI 4 60) || fail "service not running: $out"
wait_for 60 trace_says "Running As: WinService" || fail "no start-up banner"
trace=$(program_trace)
grep -qF "Version: 3.0 (Build: $((100 + REVISION)))" "$trace" || fail "banner lacks the build $((100 + REVISION))"
grep -q 'Listening Port: [1-9][0-9]*' "$trace" || fail "banner lacks the listening port"
grep -qF "Information in TDACLI: TD Agent Client Login Service Started" "$trace" || fail "banner category"

step "the service manager's process for the service has its address-space layout fixed, as wine.sh starts Wine"
# ADDR_NO_RANDOMIZE (0x0040000) in the personality of the service's process, found by this prefix.
svc_pid=
for p in $(pgrep -f 'tdacli\.exe'); do
  tr '\0' '\n' <"/proc/$p/environ" 2>/dev/null | grep -qxF "WINEPREFIX=$WINEPREFIX" && svc_pid=$p
done
[ -n "$svc_pid" ] || fail "no process of the service in this prefix"
personality=$(cat "/proc/$svc_pid/personality")
(( 0x$personality & 0x0040000 )) || fail "the service runs with a randomized layout (personality $personality)"
grep -q '^7d0[0-9a-f]*-[0-9a-f]* .*\[heap\]$' "/proc/$svc_pid/maps" || fail "the heap does not follow the loader: $(grep '\[heap\]' "/proc/$svc_pid/maps")"

step "user-defined control code 200"
out=$(svctool control TDACLI 200); grep -qx 'result=0' <<<"$out" || fail "ControlService(200): $out"
wait_for 30 trace_says "Warning in TDACLI: The message (200) was recevied and discarded. The service does not recognize that request" ||
  fail "code 200 not logged"

step "a NUL inside a SET value is cut like a line break"
port=$(sed -n 's/.*Listening Port: \([0-9]*\).*/\1/p' "$trace" | head -n 1)
[ -n "$port" ] || fail "no listening port in the banner"
exec 3<>"/dev/tcp/127.0.0.1/$port" || fail "no connection to port $port"
[ "$(timeout 10 head -c 7 <&3)" = "|READY|" ] || fail "no |READY| on port $port"
printf '|SETSERVER|10.0.0.1\0evil;' >&3
expected='|SETSERVER|<TD Server>10.0.0.1;'
timeout 10 head -c ${#expected} <&3 >"$WORK/reply.bin"
exec 3<&-
printf '%s' "$expected" | cmp -s - "$WORK/reply.bin" || fail "SETSERVER with a NUL answered: $(od -c "$WORK/reply.bin")"
printf '%s\r\n' "Tyndrel - Agent Client Configuration" "[Config]" "Ext=1234" "Server=10.0.0.1" "UseTrace=False" \
  "LocalTemp=unknown" "CurrentUser=N/A" "CurrentEvent=N/A" "SvrTemp=Unknown" "NotificationMethod=FileMessage" \
  "PopEx=false" "PopWinName=false" "ListeningPorts=0,0,0,0" >"$WORK/settings.expected"
cmp -s "$WORK/settings.expected" "$APP/TDRegInfo.TXT" || fail "TDRegInfo.TXT: $(od -c "$APP/TDRegInfo.TXT" | head -n 20)"
wait_for 30 trace_says "Warning in TDACLI: The value of (Server) held a line break and was cut at it." ||
  fail "no Warning line for the cut server"

step "pause and continue are logged and refused"
out=$(svctool pause TDACLI) || fail "pause: $out"
wait_for 30 trace_says "Warning in TDACLI: The service received, and discarded, a 'Pause' request. This service does not accept pause/continue requests." ||
  fail "pause not logged"
out=$(svctool continue TDACLI) || fail "continue: $out"
wait_for 30 trace_says "Warning in TDACLI: The service received, and discarded, a 'Continue' request. This service does not accept pause/continue requests." ||
  fail "continue not logged"
out=$(svctool query TDACLI); grep -qx 'state=4' <<<"$out" || fail "service not running after pause: $out"

step "closing the service's hidden form is logged and refused"
out=$(svctool close-form service) || fail "close-form: $out"
grep -qx 'window=yes' <<<"$out" || fail "the form was closed: $out"
wait_for 30 trace_says "Trace in TDACLI: Form_QueryUnload Invoked" || fail "no Form_QueryUnload Invoked"
out=$(svctool close-form service end-session) || fail "close-form end-session: $out"
grep -qx 'answer=0' <<<"$out" || fail "the end of the session was not refused: $out"
out=$(svctool query TDACLI); grep -qx 'state=4' <<<"$out" || fail "service not running after the close: $out"
[ "$(grep -cF "Form_QueryUnload Invoked" "$(program_trace)")" -eq 2 ] || fail "expected two Form_QueryUnload lines"

step "a session end that comes all the same is one close request: one Form_QueryUnload line"
# What Windows sends at a forced sign-out or shutdown: the question, refused, then WM_ENDSESSION with
# TRUE. Both messages are answered before svctool returns.
out=$(svctool close-form service session-ended) || fail "close-form session-ended: $out"
grep -qx 'answer=0' <<<"$out" || fail "the end of the session was not refused: $out"
n=$(grep -cF "Form_QueryUnload Invoked" "$(program_trace)")
[ "$n" -eq 3 ] || fail "the end of the session logged $((n - 2)) Form_QueryUnload lines, expected one"
out=$(svctool query TDACLI); grep -qx 'state=4' <<<"$out" || fail "service not running after the session end: $out"

step "wineboot --end-session does not reach the service's form, which lives in the service window station"
WINEDEBUG=-all "$WINE" wineboot --end-session >>"$LOG" 2>&1 || fail "wineboot --end-session"
[ "$(grep -cF "Form_QueryUnload Invoked" "$(program_trace)")" -eq 3 ] || fail "wineboot --end-session reached the form"
out=$(svctool query TDACLI); grep -qx 'state=4' <<<"$out" || fail "service not running after wineboot --end-session: $out"

step "stop through the service manager"
stop_service TDACLI
wait_for 30 trace_says "*  STOP  *" || fail "no STOP banner"
ends_with_stop_banner || fail "trace does not end with the STOP banner"
host_trace=$(ls "$APP"/*-TraceFile.TXT | grep -v -- '-TDACLI-TraceFile.TXT$' | head -n 1)
[ -n "$host_trace" ] || fail "no host-wide trace"
grep -qF "TD Agent Client Login Service Stopped" "$host_trace" || fail "stop line missing in the host-wide trace"
! grep -qF "*  STOP  *" "$host_trace" || fail "STOP banner in the host-wide trace"

step "event-log entries reached the eventlog channel"
grep -qF 'trace:eventlog:ReportEventW L"TD Agent Client Login Service Started' "$LOG" || fail "no information entry"
grep -qF 'warn:eventlog:ReportEventW L"The message (200) was recevied and discarded' "$LOG" || fail "no warning entry"
grep -qF 'trace:eventlog:ReportEventW L"TD Agent Client Login Service Stopped"' "$LOG" || fail "no stop entry"

step "beside thinterminal.dat a start through the service manager ends at once: stopped, exit code 1"
# The agent runs in each user's session there; as the service as well it would log the seat's user in
# twice. The service manager must not be left waiting (START_PENDING, stop refused with 1061).
: >"$APP/thinterminal.dat"
APP_W=$(sed -n 's/^binary="\{0,1\}\(.*\)\\tdacli\.exe"\{0,1\}$/\1/p' <<<"$cfg")
[ -n "$APP_W" ] || fail "no Windows path of the application folder in: $cfg"
lines_before=$(wc -l <"$trace")
out=$(svctool start TDACLI)
echo "StartService beside the marker: $out"
out=$(svctool wait TDACLI 1 60) || fail "the service did not end its start: $out"
out=$(svctool query TDACLI) || fail "query: $out"
echo "$out"
for want in state=1 accepted=0 exit=1066 service_exit=1; do
  grep -qx "$want" <<<"$out" || fail "after the refused start the service manager lacks '$want': $out"
done
# What an administrator sees with sc.exe.
sc=$(WINEDEBUG=-all "$WINE" sc query TDACLI 2>>"$LOG" | tr -d '\r')
echo "$sc"
grep -q 'STATE *: *1 *STOPPED' <<<"$sc" || fail "sc query does not show STOPPED: $sc"
grep -q 'WIN32_EXIT_CODE *: *1066 ' <<<"$sc" || fail "sc query does not show the exit code 1066: $sc"
grep -q 'SERVICE_EXIT_CODE *: *1 ' <<<"$sc" || fail "sc query does not show the service-specific exit code 1: $sc"
expected="Error in TDACLI: THINTERMINAL - Started by the Service Manager, but [$APP_W\thinterminal.dat] is present: the agent runs in each user's session on this computer, so the service does not start (service-specific exit code 1)"
tail -n +"$((lines_before + 1))" "$trace" | sed -E 's/^[0-9-]+ [0-9:]+ [AP]M  -  //' | tr -d '\r' >"$WORK/refused.txt"
# The new process's STARTUP lines, its local address, then the reason; nothing of a start.
ip_line=$(grep -m 1 '^Trace in TDACLI: Set Local IP to: ' "$WORK/refused.txt")
printf '%s\n' "Trace in TDACLI: *************" "Trace in TDACLI: *  STARTUP  *" "Trace in TDACLI: *************" \
  "$ip_line" "$expected" >"$WORK/refused.expected"
diff "$WORK/refused.expected" "$WORK/refused.txt" || fail "the refused start's trace lines differ"
out=$(svctool stop TDACLI); grep -qx 'result=1062' <<<"$out" || fail "stop after the refused start: expected 1062, got: $out"
! grep -qF 'THINTERMINAL - Started by the Service Manager' "$LOG" || fail "the refusal reached the event log beside the marker"
rm -f "$APP/thinterminal.dat"

step "uninstall: tdacli.exe /u /s"
agent_exe /u /s || fail "tdacli.exe /u /s exited with $?"
out=$(svctool installed TDACLI) && fail "service still installed"
grep -qx 'installed=no' <<<"$out" || fail "unexpected answer: $out"
out=$(svctool control TDACLI 200); grep -qx 'result=1060' <<<"$out" || fail "expected 1060, got: $out"
"$WINE" reg query 'HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\TDACLI' >/dev/null 2>&1 &&
  fail "event source still registered"

echo "PASS: service round trip"
exit 0
