#!/bin/bash
# The web console end to end on Linux: N real tdacli agents (50 in the tests), each in its own folder on
# its own port, one refusing the console through its allow-list, one of another server, two of other
# versions and one (the last) that logs in for real against the login server simulator with a TDACMT
# stand-in beside it; fleet-peers' silent, wrong, flood, trickle and hostile hosts; a port where
# nothing listens -> agent-explorer serve on a free loopback port -> one part of the checks:
#   api       the JSON API (tests/e2e/serve_api.py): 401, 403, states, drift, seat, login and trace
#             file, preview and apply with every settings file checked byte for byte, the audit log,
#             exports beside fleet's own; a listen beyond loopback refused without TLS; HTTPS with a
#             test certificate
#   browser   the page in headless Chromium (tests/e2e/serve_browser.py), screenshots in --shots
# -> every program is stopped (also when a check fails).
#
#   serve_linux.sh --part api|browser --tdacli F --explorer F --peers F --login-server F --standin F
#                  --fixtures DIR [--agents N] [--shots DIR]
set -u

PART= TDACLI= EXPLORER= PEERS= LOGIN_SERVER= STANDIN= FIXTURES= N=50 SHOTS=
while [ $# -gt 0 ]; do
  case "$1" in
    --part) PART=$2; shift 2 ;;
    --tdacli) TDACLI=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    --peers) PEERS=$2; shift 2 ;;
    --login-server) LOGIN_SERVER=$2; shift 2 ;;
    --standin) STANDIN=$2; shift 2 ;;
    --fixtures) FIXTURES=$2; shift 2 ;;
    --agents) N=$2; shift 2 ;;
    --shots) SHOTS=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$PART" ] && [ -n "$TDACLI" ] && [ -n "$EXPLORER" ] && [ -n "$PEERS" ] && [ -n "$LOGIN_SERVER" ] &&
  [ -n "$STANDIN" ] && [ -n "$FIXTURES" ] || { echo "missing arguments" >&2; exit 2; }
[ "$N" -ge 10 ] || { echo "--agents: at least 10" >&2; exit 2; }
export LC_ALL=C
# Debian's Python, where python3-selenium lives (another python3 may come first on PATH).
PYTHON=/usr/bin/python3

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
begin_run tdacli-serve-$PART
[ -n "${KEEP_WORK:-}" ] && trap "stop_all" EXIT
fail() { fail_showing "$*" "$WORK"/serve.err "$WORK"/peers.err "$WORK"/transcript.txt; }
# shellcheck source=tests/e2e/fleet_lib.sh
source "$(dirname "$0")/fleet_lib.sh"

step "$N agents and one that refuses the console, each in its own folder on its own port"
prepare_agents
cp "$FIXTURES/full64.dll" "$WORK/a8/TDACLI.EXE"
cp "$FIXTURES/prog64.exe" "$WORK/a9/TDACLI.EXE"
settings_of 3 "${PORT[3]}" 10.7.7.7 >"$WORK/a3/TDRegInfo.TXT"
# The last agent logs in for real: the simulator's user, a temp folder, TDACMT beside it.
USER_NAME=jsmith
start_login_server 600
PIDS+=("$SERVER_PID")
mkdir -p "$WORK/temp"
settings_text "${PORT[N]}" ServiceMessage "$WORK/temp" >"$WORK/a$N/TDRegInfo.TXT"
"$STANDIN" --name TDACMT --app-dir "$WORK/a$N" --answer 130=131,140=141 --log "$WORK/TDACMT.log" 2>"$WORK/TDACMT.err" &
PIDS+=("$!")
wait_for 20 test -S "$WORK/a$N/TDACMT.svc" || fail "the TDACMT stand-in did not open its endpoint"
start_agents 120

step "peers that are no agents (one with markup for a name), and a port where nothing listens"
"$PEERS" --ports-file "$WORK/peers.txt" --exit-after 600 2>"$WORK/peers.err" &
PIDS+=("$!")
wait_for 20 test -s "$WORK/peers.txt" || fail "fleet-peers did not start"
peer() { awk -v n="$1" '$1 == n { print $2 }' "$WORK/peers.txt"; }
DEAD=$(free_port)
while [ -n "${TAKEN[$DEAD]:-}" ]; do DEAD=$(free_port); done
{
  echo "# the floor"
  for i in $(seq 0 "$N"); do echo "127.0.0.1:${PORT[i]}"; done
  for p in silent wrong flood trickle hostile; do echo "127.0.0.1:$(peer $p)"; done
  echo "127.0.0.1:$DEAD"
} >"$WORK/hosts.txt"
{
  printf '{"agents": {'
  for i in $(seq 0 "$N"); do printf '%s"%d": %d' "$([ "$i" -gt 0 ] && echo ,)" "$i" "${PORT[i]}"; done
  printf '}, "peers": {'
  printf '"silent": %d, "wrong": %d, "flood": %d, "trickle": %d, "hostile": %d, "dead": %d' \
    "$(peer silent)" "$(peer wrong)" "$(peer flood)" "$(peer trickle)" "$(peer hostile)" "$DEAD"
  printf '}, "computer": "%s", "me": "%s", "login_agent": %d}\n' "$COMPUTER" "$ME" "$N"
} >"$WORK/floor.json"

step "agent-explorer serve on a free loopback port"
: >"$WORK/serve.out"
"$EXPLORER" serve --hosts "@$WORK/hosts.txt" --listen 127.0.0.1:0 --timeout 2 --audit-log "$WORK/audit.jsonl" \
  >"$WORK/serve.out" 2>"$WORK/serve.err" &
PIDS+=("$!")
wait_for 20 grep -q '^agent-explorer serve: http://' "$WORK/serve.out" || fail "no start-up line"
URL=$(sed -nE 's|^agent-explorer serve: (http://[^ ]+) .*|\1|p' "$WORK/serve.out")
echo "console at ${URL%%\?*}"

case "$PART" in
  api)
    "$PYTHON" "$(dirname "$0")/serve_api.py" --url "$URL" --work "$WORK" --explorer "$EXPLORER" ||
      fail "the API checks failed" ;;
  browser)
    [ -n "$SHOTS" ] || fail "--shots is needed for the browser part"
    mkdir -p "$SHOTS"
    "$PYTHON" "$(dirname "$0")/serve_browser.py" --url "$URL" --work "$WORK" --shots "$SHOTS" ||
      fail "the browser checks failed" ;;
  *) fail "unknown part $PART" ;;
esac

step "stop"
stop_all
echo "elapsed: $(( ($(date +%s%N) - STARTED) / 1000000 )) ms"
echo "PASS: web console end to end ($PART)"
exit 0
