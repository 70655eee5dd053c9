#!/bin/bash
# tdacli.exe in user-session mode under Wine ("thinterminal.dat" beside it): started by hand it runs as
# an ordinary program without a console (the service dispatcher refuses it), starts itself with the
# user-session banner, writes nothing to the event log, and the end of the user's session (Wine's
# "wineboot --end-session" asks every top-level window, as Windows does at sign-out) stops it through
# its hidden main form with the STOP banner.
#
#   user_session.sh --wine-run <wine-run.sh> --prefix <Wine prefix> --tdacli <tdacli.exe> --work <dir>
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/../e2e/lib.sh"
# shellcheck source=tests/e2e/wine_lib.sh
source "$(dirname "$0")/../e2e/wine_lib.sh"
take_options wine-run=WINE_RUN prefix=PREFIX tdacli=TDACLI work=WORK -- "$@"

APP=$WORK
LOG=$WORK/wine-stderr.log
rm -rf "$WORK"
mkdir -p "$WORK"
cp "$TDACLI" "$WORK/tdacli.exe"
: >"$WORK/thinterminal.dat"
printf 'ListeningPorts=0,0,0,0\r\n' >"$WORK/TDRegInfo.TXT"

WINESERVER=/usr/lib/wine/wineserver
[ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)
PID=
cleanup() {
  [ -n "$PID" ] && kill -KILL "$PID" 2>/dev/null
  WINEPREFIX=$PREFIX "$WINESERVER" -k >/dev/null 2>&1
}
trap cleanup EXIT
fail() { fail_showing "$*" "$WORK"/*TraceFile.TXT "$LOG"; }

step "the prefix's session up, its service manager done starting services"
# A program started by hand while Wine's service manager is still starting the services of a new
# session can take the control pipe meant for one of them, and would then be told that the service
# manager started it. The session is brought up first and kept for the whole run.
WINEDEBUG=-all "$WINE_RUN" "--prefix=$PREFIX" wineboot </dev/null >/dev/null 2>&1 || fail "wineboot"
WINEPREFIX=$PREFIX "$WINESERVER" -w
WINEPREFIX=$PREFIX "$WINESERVER" -p
WINEDEBUG=-all "$WINE_RUN" "--prefix=$PREFIX" wineboot </dev/null >/dev/null 2>&1 || fail "wineboot"

step "the prefix's desktop open before the agent's form needs it"
open_desktop "$PREFIX"

step "start by hand in user-session mode"
(cd "$WORK" && WINEDEBUG=+eventlog exec "$WINE_RUN" "--prefix=$PREFIX" tdacli.exe) </dev/null >"$LOG" 2>&1 &
PID=$!
wait_for 90 trace_says "Running As: UserSession (Terminal Server)" || fail "no user-session banner"
grep -qF "The explorer process failed to start" "$LOG" && fail "the agent's form found no desktop"
release_desktop
trace=$(program_trace)
grep -qF "Trace! in TDACLI: THINTERMINAL - Deferring opening of socket until after login!" "$trace" ||
  fail "listening socket not deferred"
grep -qF "Form_Load Invoked" "$trace" && fail "Form_Load Invoked logged in user-session mode"

step "the user's session ends"
# The agent's form is asked first; once it has agreed, Wine ends what is still running. The agent has
# ended itself by then: its exit status is its own 0.
WINEDEBUG=-all "$WINE_RUN" "--prefix=$PREFIX" wineboot --end-session </dev/null >>"$LOG" 2>&1 ||
  fail "wineboot --end-session failed"
ends_with_status_0 "$PID" 60
PID=
ends_with_stop_banner || fail "trace does not end with the STOP banner"

step "no event-log entries in user-session mode"
grep -q 'eventlog:ReportEvent' "$LOG" && fail "event-log entries written"
ls "$WORK"/*Error.LOG >/dev/null 2>&1 && fail "error log written"

echo "PASS: user session"
exit 0
