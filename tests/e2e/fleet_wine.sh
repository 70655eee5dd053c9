#!/bin/bash
# The fleet console end to end under Wine: agent-explorer.exe (Windows sockets, its select() loop and
# binary standard output) asks N agents built for the host (Wine shares the host's loopback), one of
# them refusing it through its allow-list, a port where nothing listens and fleet-peers.exe's hosts
# that stay silent, greet wrongly, send 1 MB or trickle -> getinfo as a table, CSV and JSON (exact, the
# round-trip times aside), set without and with --apply (every agent's TDRegInfo.TXT changed; nothing
# without --apply), no progress line when standard error is a file -> every program is stopped.
#
#   fleet_wine.sh --tdacli HOST-PROGRAM --explorer EXE --peers EXE --wine-run SCRIPT --prefix DIR [--agents N]
set -u

TDACLI= EXPLORER= PEERS= WINE_RUN= PREFIX= N=8
while [ $# -gt 0 ]; do
  case "$1" in
    --tdacli) TDACLI=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    --peers) PEERS=$2; shift 2 ;;
    --wine-run) WINE_RUN=$2; shift 2 ;;
    --prefix) PREFIX=$2; shift 2 ;;
    --agents) N=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$TDACLI" ] && [ -n "$EXPLORER" ] && [ -n "$PEERS" ] && [ -n "$WINE_RUN" ] && [ -n "$PREFIX" ] ||
  { echo "missing arguments" >&2; exit 2; }
[ "$N" -ge 8 ] || { echo "--agents: at least 8" >&2; exit 2; }
export LC_ALL=C

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
# shellcheck source=tests/e2e/fleet_lib.sh
source "$(dirname "$0")/fleet_lib.sh"
begin_run tdacli-fleet-wine
fail() { fail_showing "$*" "$WORK"/err.* "$WORK"/peers.err "$WORK"/diff.txt; }
wine_run() { "$WINE_RUN" "--prefix=$PREFIX" "$@"; }
winpath() { wine_run winepath -w "$1" 2>/dev/null | tr -d '\r'; }
fleet() { wine_run "$EXPLORER" fleet "$@"; }
# Standard error is a text stream on Windows (CR LF); standard output is written in binary.
same_err() {
  tr -d '\r' <"$1" >"$1.txt"
  same_text "$1.txt" "$2" "$3"
}

step "$N agents built for the host and one that refuses the console"
prepare_agents
start_agents 60

step "fleet-peers.exe under Wine, and a port where nothing listens"
PEERS_FILE=$(winpath "$WORK/peers.txt")
[ -n "$PEERS_FILE" ] || fail "no Windows path for $WORK/peers.txt"
wine_run "$PEERS" --ports-file "$PEERS_FILE" --exit-after 240 </dev/null >/dev/null 2>"$WORK/peers.err" &
PIDS+=("$!")
wait_for 60 test -s "$WORK/peers.txt" || fail "fleet-peers.exe did not start"
peer() { tr -d '\r' <"$WORK/peers.txt" | awk -v n="$1" '$1 == n { print $2 }'; }
SILENT=$(peer silent) WRONG=$(peer wrong) FLOOD=$(peer flood) TRICKLE=$(peer trickle)
DEAD=$(free_port)
while [ -n "${TAKEN[$DEAD]:-}" ]; do DEAD=$(free_port); done

{
  echo "# the floor"
  for i in $(seq 1 "$N"); do echo "127.0.0.1:${PORT[i]}"; done
} >"$WORK/hosts.txt"
HOSTS_FILE=$(winpath "$WORK/hosts.txt")
HOSTS="@$HOSTS_FILE,127.0.0.1:$DEAD,127.0.0.1:$SILENT,127.0.0.1:$WRONG,127.0.0.1:$FLOOD,127.0.0.1:$TRICKLE"
HOSTS+=",127.0.0.1:${PORT[0]},127.0.0.1:${PORT[1]}"
OTHERS=("$DEAD refused" "$SILENT timeout" "$WRONG not-an-agent" "$FLOOD error: reply too long" "$TRICKLE timeout"
  "${PORT[0]} closed")
SUMMARY="$((N + 6)) hosts: $N ok, 2 timeout, 1 refused, 1 closed, 1 not-an-agent, 1 error"

step "getinfo as a table"
fleet getinfo --hosts "$HOSTS" --timeout 3 >"$WORK/out.table" 2>"$WORK/err.table"
rc=$?
[ $rc -eq 1 ] || fail "getinfo: exit code $rc"
same_err "$WORK/err.table" "$SUMMARY
" "standard error of getinfo"
grep -q $'\r' "$WORK/out.table" && fail "the table holds a carriage return"
table_cells "$WORK/out.table" >"$WORK/cells.txt"
expected_cells >"$WORK/cells.expected"
same_output "$WORK/cells.txt" "$WORK/cells.expected" "the table"

step "getinfo as CSV"
fleet getinfo --hosts "$HOSTS" --timeout 3 --format csv >"$WORK/out.csv" 2>"$WORK/err.csv"
rc=$?
[ $rc -eq 1 ] || fail "getinfo --format csv: exit code $rc"
rtt_csv "$WORK/out.csv" >"$WORK/csv.txt"
expected_csv >"$WORK/csv.expected"
same_output "$WORK/csv.txt" "$WORK/csv.expected" "the CSV"

step "getinfo as JSON"
fleet getinfo --hosts "$HOSTS" --timeout 3 --format json >"$WORK/out.json" 2>"$WORK/err.json"
rc=$?
[ $rc -eq 1 ] || fail "getinfo --format json: exit code $rc"
rtt_json "$WORK/out.json" >"$WORK/json.txt"
expected_json '"timeout": 2' '"refused": 1' '"closed": 1' '"not-an-agent": 1' '"error": 1' >"$WORK/json.expected"
same_output "$WORK/json.txt" "$WORK/json.expected" "the JSON"

check_set_dry_and_apply 3 same_err

step "a malformed entry: usage error"
fleet getinfo --hosts "127.0.0.1:${PORT[1]},pc 7" >"$WORK/out.usage" 2>"$WORK/err.usage"
rc=$?
[ $rc -eq 2 ] || fail "a malformed entry: exit code $rc"
same_err "$WORK/err.usage" "agent-explorer fleet: --hosts: bad entry \"pc 7\" (not an IPv4 address or a host name)
(agent-explorer fleet --help shows the usage)
" "the usage error"

step "stop"
stop_all
echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: fleet end to end under Wine"
exit 0
