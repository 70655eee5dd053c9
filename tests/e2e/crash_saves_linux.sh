#!/bin/bash
# The real agent killed (SIGKILL) inside a settings save, at each file-system call of the save in
# turn, and started again: GETINFO answers with the old settings or the new ones, never the defaults,
# and "TDRegInfo.TXT" holds exactly the old or the new bytes. The calls are the opens, writes, flushes,
# closes, renames and unlinks that touch "TDRegInfo.TXT" or "TDRegInfo.tmp", as strace sees them;
# strace's fault injection kills the agent at the n-th of them. One more kill follows each rename, at
# the agent's next call on its trace file (the settings are on the disk then, the trace line of the
# save not yet). For SETEXT, SETSERVER, SETLISTEN, SETALL and the save of a login (code 128 against
# the login server simulator).
#
#   crash_saves_linux.sh --tdacli F --abuse F --login-server F --explorer F
set -u

TDACLI= ABUSE= LOGIN_SERVER= EXPLORER=
while [ $# -gt 0 ]; do
  case "$1" in
    --tdacli) TDACLI=$2; shift 2 ;;
    --abuse) ABUSE=$2; shift 2 ;;
    --login-server) LOGIN_SERVER=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$TDACLI" ] && [ -n "$ABUSE" ] && [ -n "$LOGIN_SERVER" ] && [ -n "$EXPLORER" ] ||
  { echo "missing arguments" >&2; exit 2; }

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
begin_run tdacli-crash
USER_NAME=jsmith
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/*.log "$WORK"/strace.txt; }
command -v strace >/dev/null || fail "strace is missing (scripts/install-deps.sh installs it)"

# The calls of a save: every one that can change what is on the disk, and the opens and closes around
# them. Reads and stats change nothing; a kill there is the same as a kill at the call after them.
CALLS=open,openat,creat,write,pwrite64,writev,fsync,fdatasync,close,rename,renameat,renameat2,unlink,unlinkat,truncate,ftruncate
SETTINGS=$APP/TDRegInfo.TXT
TEMPORARY=$APP/TDRegInfo.tmp

mkdir -p "$APP"
cp "$TDACLI" "$APP/tdacli"
# A login that skips the temp-folder check, so that no sibling has to answer.
printf '%s\n' '[jsmith]' 'ServerTemp=NoScreenCapture' 'LocalTemp=c:\%appdir%\Capture' 'LiveID=48213:10.1.2.3:5020:T' \
  'Trace=False' 'WebCam=false' >"$WORK/crash-users.txt"
start_login_server 3000 "$WORK/crash-users.txt"
PIDS+=("$SERVER_PID")
PORT=$(free_port) || fail "no free port"
NEW_PORT=$(free_port) || fail "no free port"
[ "$NEW_PORT" != "$PORT" ] || NEW_PORT=$(free_port)
settings_text "$PORT" ServiceMessage Unknown >"$WORK/old.TXT"

reset_folder() {
  cp "$WORK/old.TXT" "$SETTINGS"
  rm -f "$TEMPORARY" "$APP/TDRegInfo.TXT.new" "$APP/TDACLI.svc" "$APP"/*-TraceFile.TXT "$APP"/*-Error.LOG
  rm -f "$APP"/TDACFTP.INI "$APP"/TDIPMASK.INI "$APP"/TDLiveID.INI
}
banners() { messages | grep -cx 'Running As: WinService'; }
banner_after() { [ "$(banners)" -gt "$1" ]; }
# Starts the agent (under strace when arguments are given: they go to strace); sets AGENT. The trace
# of a killed agent stays: the start counts as done at the next banner.
start_agent() {
  local before
  before=$(banners)
  if [ $# -gt 0 ]; then
    # Not exec'd: the subshell reaps the killed strace, so no job notice reaches this script's output.
    (cd "$APP" && strace -f -qq -y "$@" -e trace="$CALLS" -P "$SETTINGS" -P "$TEMPORARY" -P "$TRACE" ./tdacli; true) \
      >"$WORK/tdacli.log" 2>&1 &
  else
    (cd "$APP" && exec ./tdacli) >"$WORK/tdacli.log" 2>&1 &
  fi
  AGENT=$!
  PIDS+=("$AGENT")
  wait_for 60 banner_after "$before" || fail "no start-up banner"
  wait_for 20 test -S "$APP/TDACLI.svc" || fail "no control endpoint"
}
stop_agent() {
  local tracer traced=
  # Under strace the agent is strace's child: the signal goes to the agent, and strace ends with it.
  tracer=$(pgrep -P "$AGENT" -x strace)
  [ -n "$tracer" ] && traced=$(pgrep -P "$tracer" -x tdacli)
  kill -TERM "${traced:-$AGENT}" 2>/dev/null
  wait_for 30 bash -c "! kill -0 $AGENT 2>/dev/null" || fail "the agent did not stop"
  wait "$AGENT" 2>/dev/null
  PIDS=("$SERVER_PID")
}
listening_port() { messages | sed -n 's/^Listening Port: //p' | tail -n 1; }
# Sends the case's command; returns when the save has run (or the agent is gone).
run_command() {
  case "$1" in
    login)
      "$EXPLORER" control TDACLI 128 --app-dir "$APP" >/dev/null 2>&1
      wait_for 60 bash -c "! kill -0 $AGENT 2>/dev/null || grep -qF 'Successfully Logged in User' '$(program_trace)'"
      ;;
    *) "$ABUSE" send "$(listening_port)" "$2" >"$WORK/reply.txt" 2>&1 ;;
  esac
}

# The values GETINFO shows: extension, server, listening ports.
getinfo_values() {
  local out port
  port=$(listening_port)
  out=$("$ABUSE" send "$port" '|GETINFO|') || return 1
  printf '%s|%s|%s\n' "$(sed -n 's/.*<Extension>\([^;]*\);.*/\1/p' <<<"$out")" \
    "$(sed -n 's/.*<TD Server>\([^;]*\);.*/\1/p' <<<"$out")" \
    "$(sed -n 's/.*<Listening Ports>\([^;]*\);.*/\1/p' <<<"$out")"
}
# The same values as a settings file gives them.
file_values() {
  printf '%s|%s|%s\n' "$(tr -d '\r' <"$1" | sed -n 's/^Ext=//p')" "$(tr -d '\r' <"$1" | sed -n 's/^Server=//p')" \
    "$(tr -d '\r' <"$1" | sed -n 's/^ListeningPorts=//p')"
}

# The program's trace file, named after the address the agent finds (the same at every start).
reset_folder
TRACE=/nonexistent
start_agent
TRACE=$(program_trace)
stop_agent
# The calls of the start-up, the same for every case: the kills start after them.
reset_folder
start_agent -o "$WORK/strace.txt"
stop_agent
START_CALLS=$(grep -E '^[0-9]+ +[a-z0-9_]+\(' "$WORK/strace.txt" | grep -cF "$SETTINGS")
echo "start-up: $START_CALLS calls on the settings file"
[ "$START_CALLS" -ge 1 ] || fail "strace saw no call on the settings file at start-up"

TOTAL_KILLS=0
# run_case NAME COMMAND: a pass that counts the calls and keeps the bytes of every state the save goes
# through, then a kill at each call after the start-up, each followed by a restart and GETINFO.
run_case() {
  local name=$1 command=$2 calls kinds n i first seen call nth states file_state values after_rename=0
  step "$name: counting the calls of the save"
  reset_folder
  start_agent -o "$WORK/strace.txt"
  run_command "$name" "$command"
  sleep 1
  stop_agent
  # One line per call: its name, and whether it touched the settings files or the trace.
  mapfile -t calls < <(sed -nE 's/^[0-9]+ +([a-z0-9_]+)\(.*/\1/p' "$WORK/strace.txt")
  mapfile -t kinds < <(grep -E '^[0-9]+ +[a-z0-9_]+\(' "$WORK/strace.txt" |
    awk -v s="$SETTINGS" -v t="$TEMPORARY" '{ print (index($0, s) || index($0, t)) ? "settings" : "trace" }')
  n=${#calls[@]}
  # The save's calls start after those of the start-up on the settings file.
  first=0 seen=0
  while [ $first -lt "$n" ] && [ $seen -lt "$START_CALLS" ]; do
    [ "${kinds[$first]}" = settings ] && seen=$((seen + 1))
    first=$((first + 1))
  done
  [ "$first" -lt "$n" ] || fail "$name: strace saw no call of the save"
  cp "$SETTINGS" "$WORK/new.TXT"
  cmp -s "$WORK/old.TXT" "$WORK/new.TXT" && fail "$name: the save changed nothing"
  # The states a reader may find: the old file, the new one and, for SETALL (one save per value),
  # the file after its first save.
  states=("$WORK/old.TXT" "$WORK/new.TXT")
  if [ "$name" = SETALL ]; then
    sed "s/^Server=.*\r\$/$(grep -a '^Server=' "$WORK/old.TXT" | tr -d '\r')\r/" "$WORK/new.TXT" >"$WORK/mid.TXT"
    states+=("$WORK/mid.TXT")
  fi
  echo "$name: $(printf '%s\n' "${kinds[@]:$first}" | grep -c settings) calls on the settings files"
  for ((i = first; i < n; i++)); do
    call=${calls[$i]}
    # The calls on the settings files, and the first one after each rename.
    if [ "${kinds[$i]}" = trace ]; then
      [ $after_rename -eq 1 ] || continue
      after_rename=0
    fi
    case "$call" in rename*) after_rename=1 ;; esac
    nth=$(printf '%s\n' "${calls[@]:0:$((i + 1))}" | grep -cx "$call")
    reset_folder
    start_agent -o /dev/null -e inject="$call:signal=SIGKILL:when=$nth"
    run_command "$name" "$command"
    wait_for 30 bash -c "! kill -0 $AGENT 2>/dev/null" || fail "$name: not killed at $call #$nth"
    wait "$AGENT" 2>/dev/null
    PIDS=("$SERVER_PID")
    file_state=
    for s in "${states[@]}"; do cmp -s "$SETTINGS" "$s" && file_state=$s; done
    [ -n "$file_state" ] || fail "$name: killed at $call #$nth, TDRegInfo.TXT holds:
$(od -c "$SETTINGS" 2>&1 | head -20)"
    start_agent
    values=$(getinfo_values) || fail "$name: no GETINFO after the kill at $call #$nth"
    [ "$values" = "$(file_values "$file_state")" ] ||
      fail "$name: killed at $call #$nth, GETINFO gives $values, the file $(file_values "$file_state")"
    case "$values" in 1234\|*|*\|127.0.0.1\|*|*\|w,x,y,z) fail "$name: the defaults after the kill at $call #$nth" ;; esac
    stop_agent
    echo "  killed at $call #$nth: $( [ "$file_state" = "$WORK/old.TXT" ] && echo old || basename "$file_state" .TXT) settings ($values)"
    TOTAL_KILLS=$((TOTAL_KILLS + 1))
  done
}

run_case SETEXT '|SETEXT|5555;'
run_case SETSERVER '|SETSERVER|10.7.7.7;'
run_case SETLISTEN "|SETLISTEN|5001,$NEW_PORT,6001,6002;"
run_case SETALL '|SETALL||EXT|5555;|SERVER|10.7.7.7;'
run_case login ''

step "an older version's save killed between its delete and its move: only TDRegInfo.tmp is left"
reset_folder
mv "$SETTINGS" "$TEMPORARY"
start_agent
values=$(getinfo_values) || fail "no GETINFO after the recovery"
[ "$values" = "$(file_values "$WORK/old.TXT")" ] || fail "recovered $values, expected $(file_values "$WORK/old.TXT")"
has_message "Warning in TDACLI: Settings file [$SETTINGS] was missing; recovered it from [$TEMPORARY], left whole by an interrupted save." ||
  fail "no Warning line for the recovery"
cmp -s "$SETTINGS" "$WORK/old.TXT" || fail "the recovered file is not in its place"
[ ! -e "$TEMPORARY" ] || fail "TDRegInfo.tmp is still there"
stop_agent

echo "$TOTAL_KILLS kills, each followed by a restart"
echo "elapsed: $((($(date +%s%N) - STARTED) / 1000000)) ms"
echo "PASS: saves killed at every call"
