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

export LC_ALL=C

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
N=8
take_options tdacli=TDACLI explorer=EXPLORER peers=PEERS wine-run=WINE_RUN prefix=PREFIX agents=N? -- "$@"
[ "$N" -ge 8 ] || { echo "--agents: at least 8" >&2; exit 2; }
# shellcheck source=tests/e2e/wine_lib.sh
source "$(dirname "$0")/wine_lib.sh"
# shellcheck source=tests/e2e/fleet_lib.sh
source "$(dirname "$0")/fleet_lib.sh"
begin_run tdacli-fleet-wine
fail() { fail_showing "$*" "$WORK"/err.* "$WORK"/peers.err "$WORK"/diff.txt; }
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
read_peers
DEAD=$(free_port)
while [ -n "${TAKEN[$DEAD]:-}" ]; do DEAD=$(free_port); done

write_hosts_file "the floor"
HOSTS_FILE=$(winpath "$WORK/hosts.txt")
HOSTS="@$HOSTS_FILE,127.0.0.1:$DEAD,127.0.0.1:$SILENT,127.0.0.1:$WRONG,127.0.0.1:$FLOOD,127.0.0.1:$TRICKLE"
HOSTS+=",127.0.0.1:${PORT[0]},127.0.0.1:${PORT[1]}"
OTHERS=("$DEAD refused" "$SILENT timeout" "$WRONG not-an-agent" "$FLOOD error: reply too long" "$TRICKLE timeout"
  "${PORT[0]} closed")
SUMMARY="$((N + 6)) hosts: $N ok, 2 timeout, 1 refused, 1 closed, 1 not-an-agent, 1 error"

getinfo_as table 3 same_err
grep -q $'\r' "$WORK/out.table" && fail "the table holds a carriage return"
getinfo_as csv 3 ""
getinfo_as json 3 "" '"timeout": 2' '"refused": 1' '"closed": 1' '"not-an-agent": 1' '"error": 1'

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
