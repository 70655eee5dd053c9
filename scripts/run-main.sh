#!/usr/bin/env bash
# The service's main job, on this machine: the agent runs as the service in the foreground in a
# ready-made application folder, beside the bundled login server simulator and stand-ins for the
# sibling services TDACMT and TDACSC. A user's logon (service message 128) is sent to it, then the
# logoff (133); the trace, the files the agent wrote for the siblings and the simulator's transcript
# are shown. With --stay the agent keeps running afterwards until Ctrl+C.
set -euo pipefail

usage() {
  cat <<'USAGE'
Usage: scripts/run-main.sh [--stay]

Builds the agent and its tools (the "linux" preset, installing missing Debian packages first), runs the
agent in build/demo/app beside the login server simulator and stand-ins for TDACMT and TDACSC, sends a
user's logon (128) and logoff (133), and shows what the agent wrote and what the server saw.

  --stay      keep the agent running afterwards, its trace followed, until Ctrl+C
  -h, --help  show this text and exit (nothing is built or installed)

Environment: JOBS=<n> build parallelism (default 2).
Exit status: 0 when the logon and logoff went through; 1 when a step timed out or failed (the last
lines of the agent's trace and of the simulator's transcript are shown); 2 for a wrong argument.
USAGE
}

stay=0
while [ $# -gt 0 ]; do
  case "$1" in
    --stay) stay=1 ;;
    -h|--help) usage; exit 0 ;;
    *) echo "run-main.sh: unknown option: $1" >&2; usage >&2; exit 2 ;;
  esac
  shift
done

cd "$(dirname "$0")/.."
root="$PWD"
demo="$root/build/demo"
app="$demo/app"
transcript="$demo/transcript.txt"

scripts/install-deps.sh linux
cmake --preset linux >/dev/null
cmake --build build/linux -j"${JOBS:-2}" --target tdacli td-login-server agent-explorer sibling-standin

server_ip="127.0.0.77"
rm -rf "$demo"
mkdir -p "$app/capture/100Screens"
cp build/linux/bin/tdacli "$app/"
# The listener port is the second entry of ListeningPorts.
port=5002
printf '%s\r\n' "Tyndrel - Agent Client Configuration" "[Config]" "Ext=4711" "Server=$server_ip" \
  "UseTrace=False" "LocalTemp=c:\\%appdir%\\Capture" "CurrentUser=jsmith" "CurrentEvent=N/A" \
  "SvrTemp=Unknown" "NotificationMethod=Manual" "PopEx=false" "PopWinName=false" \
  "ListeningPorts=5001,$port,5003,5004" > "$app/TDRegInfo.TXT"

pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; }
trap cleanup EXIT

build/linux/bin/td-login-server --listen "$server_ip" --users demo/users.txt --transcript "$transcript" --quiet &
server=$!
pids+=($server)
# Stand-ins for the media-transfer and screen-capture services the agent messages.
build/linux/bin/sibling-standin --name TDACMT --app-dir "$app" --answer 130=131,140=141 \
  --log "$demo/TDACMT.log" 2>/dev/null &
pids+=($!)
build/linux/bin/sibling-standin --name TDACSC --app-dir "$app" --log "$demo/TDACSC.log" 2>/dev/null &
pids+=($!)
"$app/tdacli" &
agent=$!
pids+=($agent)

# The agent's own trace file, once it has written one (named after the local address); empty before.
trace() {
  local f
  for f in "$app"/*-TDACLI-TraceFile.TXT; do
    [ -f "$f" ] && { echo "$f"; return 0; }
  done
  return 0
}

# What went wrong, then exit 1: the state of the programs and the last lines of what they wrote.
give_up() {
  echo "FAILED: $*" >&2
  kill -0 "$agent" 2>/dev/null || echo "(the agent is no longer running)" >&2
  kill -0 "$server" 2>/dev/null || echo "(the login server simulator is no longer running)" >&2
  local t
  t=$(trace)
  if [ -n "$t" ]; then
    echo "--- last lines of the agent's trace ($t)" >&2
    tail -n 25 "$t" | tr -d '\r' >&2
  else
    echo "--- the agent has not written a trace file in $app" >&2
  fi
  if [ -f "$transcript" ]; then
    echo "--- last lines of the simulator's transcript ($transcript)" >&2
    tail -n 25 "$transcript" | tr -d '\r' >&2
  else
    echo "--- the simulator has not written a transcript" >&2
  fi
  exit 1
}

# wait_for WHAT SECONDS FILE-COMMAND TEXT...: until the file names by FILE-COMMAND holds one of TEXTs.
wait_for() {
  local what=$1 seconds=$2 file_of=$3 f text
  shift 3
  echo "   waiting up to ${seconds} s for $what"
  local deadline=$((SECONDS + seconds))
  while [ $SECONDS -lt $deadline ]; do
    f=$($file_of)
    if [ -n "$f" ] && [ -f "$f" ]; then
      for text in "$@"; do grep -qF -- "$text" "$f" && return 0; done
    fi
    kill -0 "$agent" 2>/dev/null || give_up "the agent ended while waiting for $what"
    sleep 0.1
  done
  give_up "timed out after ${seconds} s waiting for $what"
}
mt_log() { echo "$demo/TDACMT.log"; }
send_code() {
  build/linux/bin/agent-explorer control TDACLI "$1" --app-dir "$app" || give_up "agent-explorer could not send code $1"
}

echo "== starting the agent"
wait_for "the agent's start-up banner (\"Running As: WinService\" in its trace)" 15 trace "Running As: WinService"
echo "== agent started; sending the logon (service message 128)"
send_code 128
wait_for "the login (\"Successfully Logged in User (jsmith)\" in the agent's trace)" 60 trace \
  "Successfully Logged in User (jsmith)"
wait_for "the end of the post-login work (code 131 at the TDACMT stand-in)" 60 mt_log "131"
echo "== sending the logoff (service message 133)"
send_code 133
wait_for "the logoff (\"Successfully Logged off User (jsmith)\" in the agent's trace)" 60 trace \
  "Successfully Logged off User (jsmith)"
wait_for "the frame cleanup after the logoff" 60 trace "Frame File(s) at (Log Off)" "Detected Error In CleanupFrames()"

echo "== files the agent wrote for the siblings"
for f in TDACFTP.INI 100ScreenParam.TXT 100Screen.KEK UseWebCam.TXT; do
  [ -f "$app/$f" ] && { echo "--- $f"; tr -d '\r' < "$app/$f"; }
done
echo "== codes the stand-in siblings received"
for f in TDACMT TDACSC; do
  codes=""
  [ -f "$demo/$f.log" ] && codes=$(tr -d '\r' < "$demo/$f.log" | paste -sd' ')
  echo "--- $f: $codes"
done
echo "== login server transcript"
tr -d '\r' < "$transcript"

if [ "$stay" = 1 ]; then
  echo "== the agent keeps running (Ctrl+C stops it); its trace follows"
  tail -n +1 -f "$(trace)" &
  pids+=($!)
  wait "$agent" || true
else
  kill -TERM "$agent"
  wait "$agent" 2>/dev/null || true
fi
echo "== agent trace ($(trace))"
tr -d '\r' < "$(trace)"
