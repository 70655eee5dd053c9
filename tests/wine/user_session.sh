#!/bin/bash
# tdacli.exe in user-session mode under Wine ("thinterminal.dat" beside it): started by hand it runs as
# an ordinary program without a console (the service dispatcher refuses it), starts itself with the
# user-session banner, writes nothing to the event log, and the end of the user's session (Wine's
# "wineboot --end-session" asks every top-level window, as Windows does at sign-out) stops it through
# its hidden main form with the STOP banner.
#
#   user_session.sh --wine-run <wine-run.sh> --prefix <Wine prefix> --tdacli <tdacli.exe> --work <dir>
set -u

WINE_RUN= PREFIX= TDACLI= WORK=
while [ $# -gt 0 ]; do
  case "$1" in
    --wine-run) WINE_RUN=$2; shift 2 ;;
    --prefix) PREFIX=$2; shift 2 ;;
    --tdacli) TDACLI=$2; shift 2 ;;
    --work) WORK=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$WINE_RUN" ] && [ -n "$PREFIX" ] && [ -n "$TDACLI" ] && [ -n "$WORK" ] || { echo "missing arguments" >&2; exit 2; }

LOG=$WORK/wine-stderr.log
rm -rf "$WORK"
mkdir -p "$WORK"
cp "$TDACLI" "$WORK/tdacli.exe"
: >"$WORK/thinterminal.dat"
printf 'ListeningPorts=0,0,0,0\r\n' >"$WORK/TDRegInfo.TXT"

PID=
cleanup() { [ -n "$PID" ] && kill -KILL "$PID" 2>/dev/null; }
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  for f in "$WORK"/*TraceFile.TXT; do
    [ -f "$f" ] && { echo "--- $(basename "$f")"; tail -n 30 "$f"; }
  done
  echo "--- wine-stderr.log (last lines)"
  tail -n 20 "$LOG" 2>/dev/null
  exit 1
}
program_trace() { ls "$WORK"/*-TDACLI-TraceFile.TXT 2>/dev/null | head -n 1; }
wait_trace() {
  local deadline=$((SECONDS + $2)) f
  while [ $SECONDS -le $deadline ]; do
    f=$(program_trace)
    [ -n "$f" ] && grep -qF -- "$1" "$f" && return 0
    sleep 0.5
  done
  return 1
}

echo "== start by hand in user-session mode"
(cd "$WORK" && WINEDEBUG=+eventlog exec "$WINE_RUN" "--prefix=$PREFIX" tdacli.exe) </dev/null >"$LOG" 2>&1 &
PID=$!
wait_trace "Running As: UserSession (Terminal Server)" 90 || fail "no user-session banner"
trace=$(program_trace)
grep -qF "Trace! in TDACLI: THINTERMINAL - Deferring opening of socket until after login!" "$trace" ||
  fail "listening socket not deferred"
grep -qF "Form_Load Invoked" "$trace" && fail "Form_Load Invoked logged in user-session mode"

echo "== the user's session ends"
# The agent's form is asked first; once it has agreed, Wine ends what is still running. The agent has
# ended itself by then: its exit status is its own 0.
WINEDEBUG=-all "$WINE_RUN" "--prefix=$PREFIX" wineboot --end-session </dev/null >>"$LOG" 2>&1 ||
  fail "wineboot --end-session failed"
for _ in $(seq 1 120); do
  kill -0 "$PID" 2>/dev/null || break
  sleep 0.5
done
kill -0 "$PID" 2>/dev/null && fail "still running after the end of the session"
wait "$PID"
rc=$?
PID=
[ "$rc" -eq 0 ] || fail "exit code $rc"
tail -n 4 "$trace" | sed -E 's/^[0-9-]+ [0-9:]+ [AP]M  -  //' | tr -d '\r' >"$WORK/tail.txt"
printf '%s\n' "Information in TDACLI: TD Agent Client Login Service Stopped" \
  "Information in TDACLI: **********" "Information in TDACLI: *  STOP  *" "Information in TDACLI: **********" \
  >"$WORK/tail.expected"
diff "$WORK/tail.expected" "$WORK/tail.txt" || fail "trace does not end with the STOP banner"

echo "== no event-log entries in user-session mode"
grep -q 'eventlog:ReportEvent' "$LOG" && fail "event-log entries written"
ls "$WORK"/*Error.LOG >/dev/null 2>&1 && fail "error log written"

echo "PASS: user session"
exit 0
