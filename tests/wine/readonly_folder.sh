#!/bin/bash
# tdacli.exe under Wine in an application folder it cannot write (the folder made read-only and Wine
# run without the capability to override file permissions, since the tests run as root):
#   - started by hand without marker files (installer mode, "/u /s"): one event-log entry says the
#     folder is not writable;
#   - beside "thinterminal.root": no event-log entry at all;
#   - in user-session mode ("thinterminal.dat"): it starts, writes no event-log entry and no file, and
#     the end of the user's session ("wineboot --end-session") ends it with exit status 0.
# Wine writes event-log entries to its "eventlog" debug channel, on the program's standard error.
#
#   readonly_folder.sh --wine-run <wine-run.sh> --prefix <Wine prefix> --tdacli <tdacli.exe>
#                      --svctool <svctool.exe> --work <dir>
set -u
export LC_ALL=C

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/../e2e/lib.sh"
# shellcheck source=tests/e2e/wine_lib.sh
source "$(dirname "$0")/../e2e/wine_lib.sh"
take_options wine-run=WINE_RUN prefix=PREFIX tdacli=TDACLI svctool=SVCTOOL work=WORK -- "$@"

WINE_RUN=$(cd "$(dirname "$WINE_RUN")" && pwd)/$(basename "$WINE_RUN")
WINESERVER=/usr/lib/wine/wineserver
[ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)
# Root writes into a read-only folder; without these capabilities it cannot. Every Wine program runs
# so after the prefix is made, the Wine server too (it opens files for its clients).
NO_OVERRIDE=(setpriv --bounding-set=-dac_override,-dac_read_search,-fowner,-linux_immutable --)
wine_run() { "${NO_OVERRIDE[@]}" "$WINE_RUN" "--prefix=$PREFIX" "$@"; }

chmod -R u+w "$WORK" 2>/dev/null
rm -rf "$WORK"
mkdir -p "$WORK"

PID=
cleanup() {
  [ -n "$PID" ] && kill -KILL "$PID" 2>/dev/null
  chmod -R u+w "$WORK" 2>/dev/null
  WINEPREFIX=$PREFIX "$WINESERVER" -k >/dev/null 2>&1
}
trap cleanup EXIT
fail() { fail_showing "$*" "$WORK"/*.log; }
# A read-only application folder holding tdacli.exe and the files named.
folder() {
  local app=$WORK/$1 f
  shift
  mkdir -p "$app"
  cp "$TDACLI" "$app/tdacli.exe"
  printf 'ListeningPorts=0,0,0,0\r\n' >"$app/TDRegInfo.TXT"
  for f in "$@"; do : >"$app/$f"; done
  chmod 555 "$app"
  echo "$app"
}
agent() {  # folder log arguments...
  local app=$1 log=$2
  shift 2
  (cd "$app" && WINEDEBUG=+eventlog wine_run tdacli.exe "$@") \
    </dev/null >"$log" 2>&1
}
entries() { grep -c 'eventlog:ReportEvent' "$1"; }
files_of() { ls -A "$1" | tr '\n' ' '; }

step "prefix"
WINEDEBUG=-all "$WINE_RUN" "--prefix=$PREFIX" wineboot </dev/null >/dev/null 2>&1 || fail "wineboot"
WINEPREFIX=$PREFIX "$WINESERVER" -w

step "installer mode: one event-log entry about the folder"
app=$(folder installer)
app_w=$(WINEDEBUG=-all wine_run winepath -w "$app" 2>/dev/null | tr -d '\r')
[ -n "$app_w" ] || fail "no Windows path for $app"
agent "$app" "$WORK/installer.log" /u /s
# Wine's debug channel shows the text as a C string: each "\" doubled.
grep -F 'eventlog:ReportEvent' "$WORK/installer.log" | grep -qF \
  "L\"The application folder ${app_w//\\/\\\\} is not writable: settings, logs and files for the other services cannot be written there\"" ||
  fail "no event-log entry about the read-only folder"
[ "$(grep -cF 'is not writable: settings, logs' "$WORK/installer.log")" -eq 1 ] || fail "more than one entry about the folder"
[ "$(files_of "$app")" = "TDRegInfo.TXT tdacli.exe " ] || fail "files written into the read-only folder: $(files_of "$app")"

step "beside thinterminal.root: no event-log entry"
app=$(folder root thinterminal.root)
agent "$app" "$WORK/root.log" /u /s
[ "$(entries "$WORK/root.log")" -eq 0 ] || fail "event-log entries beside thinterminal.root: $(grep 'eventlog:ReportEvent' "$WORK/root.log")"

step "user-session mode: no event-log entry, no file, ended by the end of the session"
app=$(folder session thinterminal.dat)
open_desktop "$PREFIX" "${NO_OVERRIDE[@]}"
agent "$app" "$WORK/session.log" &
PID=$!
# The hidden form exists once the start-up checks are behind it.
found=
form_or_end() {
  WINEDEBUG=-all wine_run "$SVCTOOL" close-form desktop find 2>/dev/null | tr -d '\r' | grep -qx 'window=yes' && found=1 ||
    ended "$PID"
}
wait_for 120 form_or_end
[ -n "$found" ] || fail "the agent's form never appeared"
release_desktop
WINEDEBUG=-all wine_run wineboot --end-session </dev/null >>"$WORK/wineboot.log" 2>&1 ||
  fail "wineboot --end-session failed"
ends_with_status_0 "$PID" 60
PID=
[ "$(entries "$WORK/session.log")" -eq 0 ] ||
  fail "event-log entries in user-session mode: $(grep 'eventlog:ReportEvent' "$WORK/session.log")"
[ "$(files_of "$app")" = "TDRegInfo.TXT tdacli.exe thinterminal.dat " ] ||
  fail "files written into the read-only folder: $(files_of "$app")"

echo "PASS: read-only folder"
exit 0
