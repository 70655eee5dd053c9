#!/bin/bash
# The real agent on a full disk (Linux, small tmpfs mounts; needs root or CAP_SYS_ADMIN, otherwise the
# run is skipped with exit status 77 and says why):
#   a login whose local temp folder lies on a full disk: "61-Disk full" from the folder write test,
#   the "Can't Write to Local Temp" line, STATUS3 at the login server (the media-transfer stand-in
#   answers 132), no test file left -> the application folder's disk full: SETEXT and SETALL answer
#   with the values kept and log "Error saving settings: Disk full", TDRegInfo.TXT keeps its bytes and
#   no temporary file is left -> logging with no room at all: the agent answers every command, uses
#   no CPU while idle, its trace stops growing -> space back: the next SETEXT is saved and logged.
#
#   full_disk_linux.sh --tdacli F --abuse F --login-server F --standin F --explorer F
set -u

TDACLI= ABUSE= LOGIN_SERVER= STANDIN= EXPLORER=
while [ $# -gt 0 ]; do
  case "$1" in
    --tdacli) TDACLI=$2; shift 2 ;;
    --abuse) ABUSE=$2; shift 2 ;;
    --login-server) LOGIN_SERVER=$2; shift 2 ;;
    --standin) STANDIN=$2; shift 2 ;;
    --explorer) EXPLORER=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$TDACLI" ] && [ -n "$ABUSE" ] && [ -n "$LOGIN_SERVER" ] && [ -n "$STANDIN" ] && [ -n "$EXPLORER" ] ||
  { echo "missing arguments" >&2; exit 2; }

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/lib.sh"
begin_run tdacli-full
USER_NAME=jsmith
MOUNTS=()
fail() { fail_showing "$*" "$(program_trace)" "$WORK"/*.log "$WORK"/transcript.txt; }
# The mounts go after the programs: nothing may hold files on them then.
unmount_all() {
  local m
  stop_all
  for m in $(printf '%s\n' "${MOUNTS[@]}" | tac); do umount "$m" 2>/dev/null || umount -l "$m"; done
  MOUNTS=()
}
trap 'unmount_all; rm -rf "$WORK"' EXIT

mkdir -p "$APP"
# The application folder: room for the program and a few MB, nothing more.
size_kb=$(( ($(stat -c %s "$TDACLI") + 4 * 1024 * 1024) / 1024 ))
if ! why=$(mount -t tmpfs -o "size=${size_kb}k,mode=0755" tdacli-full "$APP" 2>&1); then
  echo "SKIP: cannot mount a tmpfs for the full disk (needs root or CAP_SYS_ADMIN): $why"
  exit 77
fi
MOUNTS+=("$APP")
cp "$TDACLI" "$APP/tdacli"
# The local temp folder the server names, on a tmpfs of its own.
mkdir "$APP/capture"
mount -t tmpfs -o size=64k,mode=0755 tdacli-full-temp "$APP/capture" || fail "cannot mount the temp folder's tmpfs"
MOUNTS+=("$APP/capture")

cat >"$WORK/full-users.txt" <<'EOF'
[jsmith]
ServerTemp=\\fs01\tdtemp\
LocalTemp=c:\%appdir%\capture
LiveID=48213:10.1.2.3:5020:T
Trace=False
WebCam=false
100Screen=SCR:010|ATLOGO:2|010|001
EOF
start_login_server 600 "$WORK/full-users.txt"
PIDS+=("$SERVER_PID")
PORT=$(free_port) || fail "no free port"
settings_text "$PORT" ServiceMessage Unknown >"$APP/TDRegInfo.TXT"
"$STANDIN" --name TDACMT --app-dir "$APP" --answer 130=132 --log "$WORK/TDACMT.log" 2>"$WORK/TDACMT.err" &
PIDS+=("$!")
wait_for 20 test -S "$APP/TDACMT.svc" || fail "the stand-in did not open its endpoint"

(cd "$APP" && exec ./tdacli) >"$WORK/tdacli.log" 2>&1 &
AGENT=$!
PIDS+=("$AGENT")
wait_for 60 has_message "Running As: WinService" || fail "no start-up banner"
wait_for 20 test -S "$APP/TDACLI.svc" || fail "no control endpoint"
reply() { "$ABUSE" send "$PORT" "$1"; }
# Fills a file system to its last block.
fill() { dd if=/dev/zero of="$1/filler" bs=4k >/dev/null 2>&1; [ "$(stat -f -c %a "$1")" -eq 0 ] || fail "$1 is not full"; }
# utime + stime of the process, in clock ticks.
cpu_ticks() { awk '{ sub(/^.*\) /, ""); print $12 + $13 }' "/proc/$1/stat"; }

step "a login whose local temp folder lies on a full disk"
fill "$APP/capture"
out=$("$EXPLORER" control TDACLI 128 --app-dir "$APP") || fail "code 128 not delivered: $out"
wait_for 60 has_line "$WORK/TDACMT.log" '^131$' || fail "the login chain did not end"
in_order \
  "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User ($USER_NAME) to Server ($SERVER)" \
  "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 61-Disk full" \
  "Error in TDACLI: TD Agent Client Can't Write to Local Temp of: $APP/capture" \
  "Trace in TDACLI: Sending message 130 to TDACMT Service"
has_line "$WORK/transcript.txt" '^\[[0-9]+\] C> STATUS3$' || fail "no STATUS3 at the server"
[ "$(ls -A "$APP/capture")" = filler ] || fail "the temp folder holds: $(ls -A "$APP/capture")"
grep -qF "TDACLI - Error during 'CanWriteToFolder' Routine(): 61-Disk full" "$APP"/*-Error.LOG ||
  fail "the error log lacks the Disk full line"

step "the application folder's disk is full"
# The trace keeps room for a few lines (allocated, not yet used), so that the Error lines can be read.
TRACE=$(program_trace)
fallocate -n -l 16k "$TRACE" || fail "cannot reserve room in the trace"
BEFORE=$(cat "$APP/TDRegInfo.TXT")
fill "$APP"
out=$(reply '|SETEXT|5555;')
[ "$out" = '|SETEXT|<Extension>4711;' ] || fail "SETEXT on a full disk answered: $out"
has_message "Error in TDACLI: Error saving settings: Disk full" || fail "no Disk full line for SETEXT"
out=$(reply '|SETALL||EXT|5555;|SERVER|10.7.7.7;')
[ "$out" = "|SETALL|<Extension>4711;|SETSERVER|<TD Server>$SERVER;" ] || fail "SETALL on a full disk answered: $out"
[ "$(messages | grep -cxF 'Error in TDACLI: Error saving settings: Disk full')" -eq 3 ] ||
  fail "not three Disk full lines: $(messages | grep -c 'Disk full')"
[ "$(cat "$APP/TDRegInfo.TXT")" = "$BEFORE" ] || fail "TDRegInfo.TXT changed on the full disk"
[ ! -e "$APP/TDRegInfo.tmp" ] || fail "a temporary file was left on the full disk"
out=$(reply '|GETINFO|')
case "$out" in *"<Extension>4711;<TD Server>$SERVER;"*) ;; *) fail "GETINFO on the full disk: $out" ;; esac

step "logging with no room left at all"
# Use up the trace's reserve: the receipt line of SETNOTIFY quotes the whole command, 20,000 bytes.
big=$(head -c 20000 /dev/zero | tr '\0' x)
out=$(reply "|SETNOTIFY|$big;")
[ "$out" = '|SETNOTIFY|<Notification Method>ServiceMessage;' ] || fail "SETNOTIFY on a full disk answered: $out"
SIZE1=$(stat -c %s "$TRACE")
for _ in $(seq 20); do
  out=$(reply '|GETINFO|')
  case "$out" in "|GETINFO|<PCName>"*) ;; *) fail "GETINFO with the trace full: $out" ;; esac
done
SIZE2=$(stat -c %s "$TRACE")
[ "$SIZE1" -eq "$SIZE2" ] || fail "the trace grew from $SIZE1 to $SIZE2 bytes on a full disk"
T0=$(cpu_ticks "$AGENT")
sleep 5
T1=$(cpu_ticks "$AGENT")
TICKS=$(getconf CLK_TCK)
echo "idle on the full disk: $((T1 - T0)) ticks of CPU time in 5 s ($TICKS ticks/s); trace stopped at $SIZE2 bytes"
[ $((T1 - T0)) -lt $((TICKS / 10)) ] || fail "the agent used $((T1 - T0)) ticks idle on a full disk"
alive "$AGENT" || fail "the agent died on the full disk"

step "space back: the next save works"
rm -f "$APP/filler"
out=$(reply '|SETEXT|5555;')
[ "$out" = '|SETEXT|<Extension>5555;' ] || fail "SETEXT with space back answered: $out"
has_line "$APP/TDRegInfo.TXT" '^Ext=5555$' || fail "TDRegInfo.TXT: $(tr -d '\r' <"$APP/TDRegInfo.TXT")"
[ "$(messages | tail -n 1)" = "Trace in TDACLI: Wrote Login Settings to config file" ] ||
  fail "the trace does not take lines again: $(messages | tail -n 1)"

echo "elapsed: $((($(date +%s%N) - STARTED) / 1000000)) ms"
echo "PASS: full disk end to end"
