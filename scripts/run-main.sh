#!/usr/bin/env bash
# The service's main job, on this machine: the agent runs as the service in the foreground in a
# ready-made application folder, beside the bundled login server simulator and stand-ins for the
# sibling services TDACMT and TDACSC. A user's logon (service
# message 128) is sent to it, then the logoff (133); the trace, the files the agent wrote for the
# siblings and the simulator's transcript are shown. With --stay the agent keeps running afterwards
# until Ctrl+C.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
stay=0
[ "${1:-}" = "--stay" ] && stay=1

scripts/install-deps.sh linux
cmake --preset linux >/dev/null
cmake --build build/linux -j"${JOBS:-2}" --target tdacli td-login-server agent-explorer sibling-standin

app="$root/build/demo/app"
server_ip="127.0.0.77"
rm -rf "$root/build/demo"
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

build/linux/bin/td-login-server --listen "$server_ip" --users demo/users.txt \
  --transcript "$root/build/demo/transcript.txt" --quiet &
pids+=($!)
# Stand-ins for the media-transfer and screen-capture services the agent messages.
build/linux/bin/sibling-standin --name TDACMT --app-dir "$app" --answer 130=131,140=141 \
  --log "$root/build/demo/TDACMT.log" 2>/dev/null &
pids+=($!)
build/linux/bin/sibling-standin --name TDACSC --app-dir "$app" --log "$root/build/demo/TDACSC.log" 2>/dev/null &
pids+=($!)
"$app/tdacli" &
agent=$!
pids+=($agent)

trace() { ls "$app"/*-TDACLI-TraceFile.TXT 2>/dev/null | head -n 1; }
wait_for() {  # text, seconds
  for _ in $(seq 1 $(( $2 * 10 ))); do
    t="$(trace)"
    if [ -n "$t" ] && grep -qF "$1" "$t"; then return 0; fi
    sleep 0.1
  done
  echo "timed out waiting for: $1" >&2
  return 1
}

wait_for "Running As: WinService" 15
echo "== agent started; sending the logon (service message 128)"
build/linux/bin/agent-explorer control TDACLI 128 --app-dir "$app"
wait_for "Successfully Logged in User (jsmith)" 60
sleep 1
echo "== sending the logoff (service message 133)"
build/linux/bin/agent-explorer control TDACLI 133 --app-dir "$app"
wait_for "Successfully Logged off User (jsmith)" 60
sleep 0.5

echo "== files the agent wrote for the siblings"
for f in TDACFTP.INI 100ScreenParam.TXT 100Screen.KEK UseWebCam.TXT; do
  [ -f "$app/$f" ] && { echo "--- $f"; tr -d '\r' < "$app/$f"; }
done
echo "== codes the stand-in siblings received"
for f in TDACMT TDACSC; do echo "--- $f: $(tr -d '\r' < "$root/build/demo/$f.log" | paste -sd' ')"; done
echo "== login server transcript"
tr -d '\r' < "$root/build/demo/transcript.txt"

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
