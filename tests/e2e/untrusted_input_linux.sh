#!/bin/bash
# The real agent on Linux against hostile and broken peers, with figures from /proc:
#   a 5,000-connection burst -> 10,000 peers that send and leave without a word (descriptors back to
#   the start-up count) -> a console that never reads (RSS) -> CR/LF and NUL in values -> SETLISTEN
#   to a busy port -> a second agent in the same folder -> the descriptor limit (one Error line a
#   second, CPU time from /proc/<pid>/stat) -> a 100 MB settings file (peak RSS).
#
#   untrusted_input_linux.sh --tdacli F --abuse F [--burst N] [--leave N]
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
BURST=5000 LEAVE=10000
take_options tdacli=TDACLI abuse=ABUSE burst=BURST? leave=LEAVE? -- "$@"
begin_run tdacli-abuse
# Freed memory of the sanitizer build is reused soon, so that its RSS shows what the agent holds.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=4:detect_leaks=0"
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/*.log; }

fds() { ls "/proc/$1/fd" 2>/dev/null | wc -l; }
status_kb() { awk -v k="$2:" '$1 == k { print $2 }' "/proc/$1/status"; }
# utime + stime of the process, in clock ticks.
cpu_ticks() { awk '{ sub(/^.*\) /, ""); print $12 + $13 }' "/proc/$1/stat"; }
settings() { SERVER=127.0.0.1 USER_NAME=jsmith settings_text "$1" ServiceMessage Unknown; }
# Starts the agent in $APP (optionally under a descriptor limit $1); sets AGENT.
start_agent() {
  local limit=${1:-}
  rm -f "$(program_trace)"
  if [ -n "$limit" ]; then
    launch_service_agent bash -c "ulimit -n $limit && exec ./tdacli"
  else
    launch_service_agent
  fi
  has_message "Listening Port: $PORT" || fail "the agent does not listen on $PORT"
}
stop_agent() {
  kill -TERM "$AGENT" 2>/dev/null
  wait_for 20 ended "$AGENT" || fail "the agent did not stop"
  wait "$AGENT" 2>/dev/null
  PIDS=()
}
fds_back() { [ "$(fds "$AGENT")" -eq "$FD0" ]; }
errors() { messages | grep -c '^Error in TDACLI' ; }
reply() { "$ABUSE" send "$PORT" "$1"; }

mkdir -p "$APP"
cp "$TDACLI" "$APP/tdacli"
PORT=$(free_port)
[ -n "$PORT" ] || fail "no free port"
settings "$PORT" >"$APP/TDRegInfo.TXT"

step "agent on port $PORT"
start_agent
sleep 1  # the start-up work has finished opening its files
FD0=$(fds "$AGENT")
RSS0=$(status_kb "$AGENT" VmRSS)
echo "start-up: $FD0 descriptors, VmRSS $RSS0 kB"

step "burst of $BURST simultaneous connects"
out=$("$ABUSE" burst "$PORT" "$BURST") || fail "$out"
echo "$out"
alive "$AGENT" || fail "the agent died in the burst"
wait_for 30 fds_back || fail "after the burst $(fds "$AGENT") descriptors, $FD0 at start"
echo "after the burst: $(fds "$AGENT") descriptors, VmHWM $(status_kb "$AGENT" VmHWM) kB"
[ "$(errors)" -eq 0 ] || fail "Error lines in the burst"

step "$LEAVE peers that send and leave while a newer one is connected"
out=$("$ABUSE" leave "$PORT" "$LEAVE") || fail "$out"
echo "$out"
wait_for 30 fds_back || fail "after leaving peers $(fds "$AGENT") descriptors, $FD0 at start"
echo "after $LEAVE leaving peers: $(fds "$AGENT") descriptors (start-up $FD0)"
grep -q '^Ext=4711' "$APP/TDRegInfo.TXT" || fail "data of an older connection was read"

step "a console that sends GETINFO without end and never reads"
# Big settings make big replies: 60,000 bytes each for the extension and the server.
big=$(head -c 60000 /dev/zero | tr '\0' 7)
sed -i "s/^Ext=.*\r\$/Ext=$big\r/; s/^Server=.*\r\$/Server=$big\r/" "$APP/TDRegInfo.TXT"
HWM_BEFORE=$(status_kb "$AGENT" VmHWM)
out=$("$ABUSE" noread "$PORT" 200000000) || fail "$out"
echo "$out"
HWM=$(status_kb "$AGENT" VmHWM)
echo "never-reading console: VmHWM $HWM_BEFORE kB before, $HWM kB after (growth $((HWM - HWM_BEFORE)) kB)"
[ $((HWM - HWM_BEFORE)) -lt 16384 ] || fail "memory grew by $((HWM - HWM_BEFORE)) kB"
n=$(messages | grep -cxF "Warning in TDACLI: Closing connection to AgentExplorer (IP = 127.0.0.1): more than 1048576 bytes of replies were not taken.")
[ "$n" -eq 1 ] || fail "$n closing warnings, expected 1"
settings "$PORT" >"$APP/TDRegInfo.TXT"

step "CR, LF and NUL inside values"
out=$(reply '|SETEXT|12\r\nCurrentUser=evil;')
[ "$out" = '|SETEXT|<Extension>12;' ] || fail "SETEXT with CR LF answered: $out"
out=$(reply '|SETALL||EXT|34\n[Config];|SERVER|10.0.0.9\rUseTrace=True;')
[ "$out" = '|SETALL|<Extension>34;|SETSERVER|<TD Server>10.0.0.9;' ] || fail "SETALL answered: $out"
out=$(reply '|SETPOP4WIN|yes\0no;')
[ "$out" = '|SETPOP4WIN|<Pop4Win>yes;' ] || fail "SETPOP4WIN with NUL answered: $out"
out=$(reply '|SETSERVER|10.0.0.1\0evil;')
[ "$out" = '|SETSERVER|<TD Server>10.0.0.1;' ] || fail "SETSERVER with NUL answered: $out"
same_bytes "$APP/TDRegInfo.TXT" '%b\r\n' "Tyndrel - Agent Client Configuration" "[Config]" "Ext=34" "Server=10.0.0.1" \
  "UseTrace=False" "LocalTemp=unknown" "CurrentUser=jsmith" "CurrentEvent=N/A" "SvrTemp=Unknown" \
  "NotificationMethod=ServiceMessage" "PopEx=false" 'PopWinName=yes' "ListeningPorts=5001,$PORT,6001,6002"
in_order "Warning in TDACLI: The value of (Ext) held a line break and was cut at it." \
  "Warning in TDACLI: The value of (Ext) held a line break and was cut at it." \
  "Warning in TDACLI: The value of (Server) held a line break and was cut at it." \
  "Warning in TDACLI: The value of (PopWinName) held a line break and was cut at it." \
  "Warning in TDACLI: The value of (Server) held a line break and was cut at it."
alive "$AGENT" || fail "the agent died"

step "SETLISTEN to a busy port"
BUSY=$(free_port)
"$ABUSE" occupy "$BUSY" 60 >"$WORK/occupy.log" &
OCC=$!
wait_for 10 grep -q listening "$WORK/occupy.log" || fail "could not occupy $BUSY"
out=$(reply "|SETLISTEN|5001,$BUSY,6001,6002;")
[ "$out" = "|SETLISTEN|<Listening Ports>5001,$PORT,6001,6002;" ] || fail "SETLISTEN answered: $out"
has_message "Error in TDACLI: Error saving settings: Address already in use (Port: $BUSY)" ||
  fail "no Error line naming port $BUSY"
out=$(reply '|GETINFO|')
case "$out" in *"<Listening Ports>5001,$BUSY,6001,6002;"*) ;; *) fail "the saved list is not in the file: $out" ;; esac
kill "$OCC" 2>/dev/null; wait "$OCC" 2>/dev/null
settings "$PORT" >"$APP/TDRegInfo.TXT"

step "a second agent in the same folder"
"$APP/tdacli" >"$WORK/second.log" 2>&1
rc=$?
[ $rc -eq 1 ] || fail "the second agent ended with $rc"
grep -qF "tdacli: an agent is already running in $APP" "$WORK/second.log" || fail "second agent said: $(cat "$WORK/second.log")"
alive "$AGENT" || fail "the first agent died"
out=$(reply '|GETINFO|')
case "$out" in "|GETINFO|<PCName>"*) ;; *) fail "the first agent no longer answers: $out" ;; esac
stop_agent

step "the descriptor limit"
start_agent 64
sleep 1
"$ABUSE" hold "$PORT" 120 14 >"$WORK/hold.log" &
HOLD=$!
accept_error="Error in TDACLI: wsckListen_ConnectionRequest() Error - 10024:Too many open files"
wait_for 20 has_message "$accept_error" || fail "no Error line for the failed accept"
# The window counted is ten seconds of the agent's own stamps, from the first Error line that comes
# after the CPU count starts; it is complete once a line stamped after it is there.
E0=$(messages | grep -cxF -- "$accept_error")
T0=$(cpu_ticks "$AGENT")
N0=$(date +%s%N)
more_errors() { [ "$(messages | grep -cxF -- "$accept_error")" -gt "$E0" ]; }
window_closed() { [ "$(stamp_of "$accept_error" last)" -ge $((W0 + 10)) ]; }
wait_for 20 more_errors || fail "no further Error line at the limit"
W0=$(stamp_of "$accept_error" $((E0 + 1)))
wait_for 30 window_closed || fail "the Error lines at the limit stopped"
T1=$(cpu_ticks "$AGENT")
N1=$(date +%s%N)
E=$(stamps_of "$accept_error" | awk -v from="$W0" '$1 >= from && $1 < from + 10' | wc -l)
TICKS=$(getconf CLK_TCK)
MS=$(( (N1 - N0) / 1000000 ))
echo "at the limit: $((T1 - T0)) ticks of CPU time in $MS ms ($TICKS ticks/s), $E Error lines stamped in 10 s"
# Under 1% of a core over the time the count ran (however long the busy machine made it).
[ $(( (T1 - T0) * 1000 * 100 )) -lt $(( TICKS * MS )) ] || fail "the agent used $((T1 - T0)) ticks in $MS ms at the limit"
[ "$E" -ge 8 ] && [ "$E" -le 12 ] || fail "$E Error lines stamped in 10 s, expected one a second"
wait "$HOLD"
cat "$WORK/hold.log"
out=$("$ABUSE" burst "$PORT" 1) || fail "no greeting after descriptors were freed: $out"
stop_agent

step "a 100 MB settings file"
{
  settings "$PORT" | head -n 2
  # 100 MB of lines the program does not know, some of them far longer than a line may be.
  for _ in $(seq 20); do
    head -c 4000000 /dev/zero | tr '\0' x
    printf '\r\n'
    yes 'Unknown=abcdefghijklmnopqrstuvwxyz0123456789abcdefghijklmnopqrstuvwxyz0123456789' | head -c 1000000
    printf '\r\n'
  done
  settings "$PORT" | tail -n +3 | sed 's/^Ext=4711/Ext=9876/'
} >"$APP/TDRegInfo.TXT"
echo "settings file: $(stat -c %s "$APP/TDRegInfo.TXT") bytes"
start_agent
out=$(reply '|GETINFO|')
case "$out" in *"<Extension>9876;"*) ;; *) fail "GETINFO after the big file: $out" ;; esac
HWM=$(status_kb "$AGENT" VmHWM)
echo "100 MB settings file: VmHWM $HWM kB after start-up and a reload (VmRSS $RSS0 kB at the first start-up)"
[ "$HWM" -lt $((RSS0 + 16384)) ] || fail "loading the big file cost $((HWM - RSS0)) kB"
stop_agent

echo "elapsed: $((($(date +%s%N) - STARTED) / 1000000)) ms"
echo "PASS: untrusted input end to end"
