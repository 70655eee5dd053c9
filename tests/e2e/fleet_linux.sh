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

TDACLI= EXPLORER= PEERS= FIXTURES= N=200
while [ $# -gt 0 ]; do
  case "$1" in
    --tdacli) TDACLI=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    --peers) PEERS=$2; shift 2 ;;
    --fixtures) FIXTURES=$2; shift 2 ;;
    --agents) N=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$TDACLI" ] && [ -n "$EXPLORER" ] && [ -n "$PEERS" ] && [ -n "$FIXTURES" ] || { echo "missing arguments" >&2; exit 2; }
[ "$N" -ge 8 ] || { echo "--agents: at least 8" >&2; exit 2; }
export LC_ALL=C

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
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
peer() { awk -v n="$1" '$1 == n { print $2 }' "$WORK/peers.txt"; }
SILENT=$(peer silent) WRONG=$(peer wrong) FLOOD=$(peer flood) TRICKLE=$(peer trickle)
DEAD1=$(free_port) DEAD2=$(free_port)
while [ "$DEAD2" = "$DEAD1" ] || [ -n "${TAKEN[$DEAD1]:-}" ] || [ -n "${TAKEN[$DEAD2]:-}" ]; do
  DEAD1=$(free_port) DEAD2=$(free_port)
done

# The floor in a host file; the others (and one agent again) on the command line.
{
  echo "# third floor"
  for i in $(seq 1 "$N"); do echo "127.0.0.1:${PORT[i]}"; done
} >"$WORK/hosts.txt"
HOSTS="@$WORK/hosts.txt,127.0.0.1:$DEAD1,127.0.0.1:${PORT[1]},127.0.0.1:$SILENT,127.0.0.1:$WRONG"
HOSTS+=",127.0.0.1:$FLOOD,127.0.0.1:$TRICKLE,127.0.0.1:${PORT[0]},127.0.0.1:$DEAD2"
OTHERS=("$DEAD1 refused" "$SILENT timeout" "$WRONG not-an-agent" "$FLOOD error: reply too long" "$TRICKLE timeout"
  "${PORT[0]} closed" "$DEAD2 refused")
TOTAL=$((N + 7))
SUMMARY="$TOTAL hosts: $N ok, 2 timeout, 2 refused, 1 closed, 1 not-an-agent, 1 error"

step "getinfo as a table"
t0=$(date +%s%N)
fleet getinfo --hosts "$HOSTS" --timeout 2 >"$WORK/out.table" 2>"$WORK/err.table"
rc=$?
echo "getinfo over $TOTAL hosts: $(( ($(date +%s%N) - t0) / 1000000 )) ms"
[ $rc -eq 1 ] || fail "getinfo with hosts that did not answer: exit code $rc"
same_text "$WORK/err.table" "$SUMMARY
" "standard error of getinfo"
table_cells "$WORK/out.table" >"$WORK/cells.txt"
expected_cells >"$WORK/cells.expected"
same_output "$WORK/cells.txt" "$WORK/cells.expected" "the table"

step "getinfo as CSV"
fleet getinfo --hosts "$HOSTS" --timeout 2 --format csv >"$WORK/out.csv" 2>"$WORK/err.csv"
rc=$?
[ $rc -eq 1 ] || fail "getinfo --format csv: exit code $rc"
same_text "$WORK/err.csv" "$SUMMARY
" "standard error of getinfo --format csv"
rtt_csv "$WORK/out.csv" >"$WORK/csv.txt"
expected_csv >"$WORK/csv.expected"
same_output "$WORK/csv.txt" "$WORK/csv.expected" "the CSV"

step "getinfo as JSON"
fleet getinfo --hosts "$HOSTS" --timeout 2 --format json >"$WORK/out.json" 2>"$WORK/err.json"
rc=$?
[ $rc -eq 1 ] || fail "getinfo --format json: exit code $rc"
rtt_json "$WORK/out.json" >"$WORK/json.txt"
expected_json '"timeout": 2' '"refused": 2' '"closed": 1' '"not-an-agent": 1' '"error": 1' >"$WORK/json.expected"
same_output "$WORK/json.txt" "$WORK/json.expected" "the JSON"

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
