#!/bin/bash
# The fleet console end to end on Linux: N real tdacli agents (200 in the tests), each in its own
# application folder with its own listening port, an agent whose allow-list refuses the console, two
# ports where nothing listens, and fleet-peers' hosts that stay silent, greet wrongly, send 1 MB or
# trickle a byte a second -> agent-explorer fleet getinfo as a table, CSV and JSON (exact, the
# round-trip times aside), getver, set without and with --apply (every agent's TDRegInfo.TXT changed
# and reported; nothing changed without --apply), the progress line on a terminal only, and a usage
# error that sends nothing -> every program is stopped (also when a check fails).
#
#   fleet_linux.sh --tdacli F --explorer F --peers F --fixtures DIR [--agents N]
set -u

export LC_ALL=C

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
N=200
take_options tdacli=TDACLI explorer=EXPLORER peers=PEERS fixtures=FIXTURES agents=N? -- "$@"
[ "$N" -ge 8 ] || { echo "--agents: at least 8" >&2; exit 2; }
begin_run tdacli-fleet
# KEEP_WORK=1 keeps the scratch folder for a look after the run (the programs are stopped all the same).
[ -n "${KEEP_WORK:-}" ] && trap "stop_all" EXIT
fail() { fail_showing "$*" "$WORK"/err.* "$WORK"/peers.err "$WORK"/diff.txt; }
fleet() { "$EXPLORER" fleet "$@"; }

# shellcheck source=tests/e2e/fleet_lib.sh
source "$(dirname "$0")/fleet_lib.sh"

step "$N agents and one that refuses the console, each in its own folder on its own port"
prepare_agents
# Two agents of different versions (version resources of real PE images).
cp "$FIXTURES/full64.dll" "$WORK/a8/TDACLI.EXE"
cp "$FIXTURES/prog64.exe" "$WORK/a9/TDACLI.EXE"
start_agents 120
echo "agents listening after $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"

step "peers that are no agents, and ports where nothing listens"
"$PEERS" --ports-file "$WORK/peers.txt" --exit-after 300 2>"$WORK/peers.err" &
PIDS+=("$!")
wait_for 20 test -s "$WORK/peers.txt" || fail "fleet-peers did not start"
read_peers
DEAD1=$(free_port) DEAD2=$(free_port)
while [ "$DEAD2" = "$DEAD1" ] || [ -n "${TAKEN[$DEAD1]:-}" ] || [ -n "${TAKEN[$DEAD2]:-}" ]; do
  DEAD1=$(free_port) DEAD2=$(free_port)
done

# The floor in a host file; the others (and one agent again) on the command line.
write_hosts_file "third floor"
HOSTS="@$WORK/hosts.txt,127.0.0.1:$DEAD1,127.0.0.1:${PORT[1]},127.0.0.1:$SILENT,127.0.0.1:$WRONG"
HOSTS+=",127.0.0.1:$FLOOD,127.0.0.1:$TRICKLE,127.0.0.1:${PORT[0]},127.0.0.1:$DEAD2"
OTHERS=("$DEAD1 refused" "$SILENT timeout" "$WRONG not-an-agent" "$FLOOD error: reply too long" "$TRICKLE timeout"
  "${PORT[0]} closed" "$DEAD2 refused")
TOTAL=$((N + 7))
SUMMARY="$TOTAL hosts: $N ok, 2 timeout, 2 refused, 1 closed, 1 not-an-agent, 1 error"

getinfo_as table 2 same_text
getinfo_as csv 2 same_text
getinfo_as json 2 "" '"timeout": 2' '"refused": 2' '"closed": 1' '"not-an-agent": 1' '"error": 1'

step "getver: the component report's rows as columns"
fleet getver --hosts "127.0.0.1:${PORT[8]},127.0.0.1:${PORT[9]},127.0.0.1:$DEAD1" --format csv >"$WORK/out.getver" \
  2>"$WORK/err.getver"
rc=$?
[ $rc -eq 1 ] || fail "getver: exit code $rc"
same_text "$WORK/err.getver" "3 hosts: 2 ok, 1 refused
" "standard error of getver"
columns="host,port,state,rtt_ms,computer,current_user,ext,server,notification_method,listening_ports,Agent Login Service"
columns+=",Agent Login Service state,Screen Capture Service,Media Transfer Service,Live Monitor Service,System Event Detector"
columns+=",Web Cam Control,Update Manager,Agent Login Detector,Agent Configuration,Agent Desktop,TDNTService Control"
columns+=",TDCamCorder Control,Agent Client Remote Control,Agent Client Remote Library,Agent Client Remote Contro2"
columns+=",Agent Client Remote IP Port,Agent Client FTP Control"
rest=",Unavailable!,Unavailable!,Unavailable!,N/A,N/A,Unavailable!,Unavailable!,Unavailable!,Unavailable!,Unavailable!"
rest+=",Unavailable!,Unavailable!,Unavailable!,Unavailable!,(Unknown),Unavailable!"
expected=$(printf '%s\r\n' "$columns" \
  "127.0.0.1,${PORT[8]},ok,RTT,$COMPUTER,user8,4008,10.1.1.5,ServiceMessage,\"5001,${PORT[8]},6001,6002\",\"3, 0, 0, 7\",RUNNING$rest" \
  "127.0.0.1,${PORT[9]},ok,RTT,$COMPUTER,user9,4009,10.1.1.5,ServiceMessage,\"5001,${PORT[9]},6001,6002\",\"2, 1, 0, 15\",RUNNING$rest" \
  "127.0.0.1,$DEAD1,refused$(printf ',%.0s' $(seq 25))"
  echo .)
rtt_csv "$WORK/out.getver" >"$WORK/getver.txt"
printf '%s' "${expected%.}" >"$WORK/getver.expected"
same_output "$WORK/getver.txt" "$WORK/getver.expected" "getver's CSV"

check_set_dry_and_apply 2 same_text

step "set --apply again: nothing left to change"
after=$(checksums)
fleet set server=10.2.2.2 --apply --hosts "@$WORK/hosts.txt" --timeout 2 >"$WORK/out.again" 2>"$WORK/err.again"
rc=$?
[ $rc -eq 0 ] || fail "set --apply on the agents alone: exit code $rc"
same_text "$WORK/err.again" "$N hosts: $N ok; $N unchanged
" "standard error of the second set --apply"
[ "$(checksums)" = "$after" ] || fail "a settings file changed although nothing was to change"

step "the progress line on a terminal, and nothing of it in the output"
script -qec "'$EXPLORER' fleet getinfo --hosts '@$WORK/hosts.txt' --parallel 16 >'$WORK/out.tty'" "$WORK/typescript" \
  </dev/null >/dev/null 2>&1
rc=$?
[ $rc -eq 0 ] || fail "getinfo on a terminal: exit code $rc"
tr '\r' '\n' <"$WORK/typescript" | grep -qE "^$N/$N done, 0 failed, [0-9]+ hosts/s" || fail "no progress line on the terminal"
tr '\r' '\n' <"$WORK/typescript" | grep -qxE " *$N hosts: $N ok" || fail "no summary on the terminal"
[ "$(wc -l <"$WORK/out.tty")" -eq $((N + 1)) ] || fail "the table on a terminal run has $(wc -l <"$WORK/out.tty") lines"
grep -q "done," "$WORK/out.tty" && fail "the progress line went to standard output"

step "a malformed entry: usage error, nothing sent"
APP=$WORK/a1
asked=$(messages | grep -c "Received GETINFO command from Agent Explorer.")
fleet getinfo --hosts "@$WORK/hosts.txt,10.1.0.0/15" >"$WORK/out.usage" 2>"$WORK/err.usage"
rc=$?
[ $rc -eq 2 ] || fail "a malformed entry: exit code $rc"
same_text "$WORK/err.usage" "agent-explorer fleet: --hosts: bad entry \"10.1.0.0/15\" (a block may be at most /16)
(agent-explorer fleet --help shows the usage)
" "the usage error"
[ ! -s "$WORK/out.usage" ] || fail "output after a usage error"
[ "$(messages | grep -c "Received GETINFO command from Agent Explorer.")" -eq "$asked" ] || fail "a usage error sent GETINFO"

step "stop"
stop_all
echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: fleet end to end"
exit 0
