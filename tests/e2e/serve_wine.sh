#!/bin/bash
# The web console under Wine: agent-explorer.exe serve (cpp-httplib on Windows sockets, loopback only)
# over N agents built for the host, one of them refusing it through its allow-list -> /api/hosts with
# the bearer token names every state and value; a listen beyond loopback is refused with its reason
# -> every program is stopped.
#
#   serve_wine.sh --tdacli HOST-PROGRAM --explorer EXE --wine-run SCRIPT --prefix DIR [--agents N]
set -u

TDACLI= EXPLORER= WINE_RUN= PREFIX= N=8
while [ $# -gt 0 ]; do
  case "$1" in
    --tdacli) TDACLI=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    --wine-run) WINE_RUN=$2; shift 2 ;;
    --prefix) PREFIX=$2; shift 2 ;;
    --agents) N=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$TDACLI" ] && [ -n "$EXPLORER" ] && [ -n "$WINE_RUN" ] && [ -n "$PREFIX" ] || { echo "missing arguments" >&2; exit 2; }
export LC_ALL=C

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
# shellcheck source=tests/e2e/fleet_lib.sh
source "$(dirname "$0")/fleet_lib.sh"
begin_run tdacli-serve-wine
fail() { fail_showing "$*" "$WORK"/serve.out "$WORK"/serve.err "$WORK"/refused.err; }
wine_run() { "$WINE_RUN" "--prefix=$PREFIX" "$@"; }
winpath() { wine_run winepath -w "$1" 2>/dev/null | tr -d '\r'; }

step "$N agents built for the host and one that refuses the console"
prepare_agents
start_agents 60
for i in $(seq 0 "$N"); do echo "127.0.0.1:${PORT[i]}"; done >"$WORK/hosts.txt"

step "a listen beyond loopback is refused"
wine_run "$EXPLORER" serve --hosts "127.0.0.1:${PORT[1]}" --listen 0.0.0.0:8080 </dev/null >"$WORK/refused.out" 2>"$WORK/refused.err"
rc=$?
[ $rc -eq 2 ] || fail "a listen beyond loopback: exit code $rc"
[ "$(tr -d '\r' <"$WORK/refused.err")" = "agent-explorer serve: --listen 0.0.0.0:8080 is beyond loopback: this build serves plain HTTP, on loopback (127.0.0.0/8) only" ] ||
  fail "a listen beyond loopback: $(cat "$WORK/refused.err")"

step "agent-explorer.exe serve on a free loopback port"
: >"$WORK/serve.out"
# Started straight from here (not through a function, which would be a subshell of its own), so
# that the process id is the console's and stop_all ends it.
HOSTS_FILE=$(winpath "$WORK/hosts.txt") AUDIT_FILE=$(winpath "$WORK/audit.jsonl")
"$WINE_RUN" "--prefix=$PREFIX" "$EXPLORER" serve --hosts "@$HOSTS_FILE" --listen 127.0.0.1:0 --timeout 3 \
  --audit-log "$AUDIT_FILE" </dev/null >"$WORK/serve.out" 2>"$WORK/serve.err" &
CONSOLE=$!
PIDS+=("$CONSOLE")
wait_for 60 grep -q '^agent-explorer serve: http://' "$WORK/serve.out" || fail "no start-up line"
URL=$(tr -d '\r' <"$WORK/serve.out" | sed -nE 's|^agent-explorer serve: (http://[^ ]+) .*|\1|p')

step "/api/hosts: every agent and the one that refuses"
/usr/bin/python3 "$(dirname "$0")/serve_wine_check.py" --url "$URL" --agents "$N" --computer "$COMPUTER" \
  --ports "$(IFS=,; echo "${PORT[*]}")" || fail "the API answered otherwise"

step "stop"
stop_all
alive "$CONSOLE" && fail "agent-explorer.exe serve still runs after the stop"
echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: web console under Wine"
exit 0
