#!/bin/bash
# Opens the desktop of the Wine prefix $WINEPREFIX, whose server runs, for as long as that server runs:
# a program that holds a window (notepad), started here with none of the caller's standard streams,
# keeps the desktop's process alive.
#
# Wine closes a desktop when the last program with a window on it ends, and the next program that
# opens a window starts the desktop's process again, which takes that program's standard error with
# it. When that program is a test, ctest waits for the desktop's process too, which lives on as long
# as the tests beside it keep the desktop open: the test passes and still runs into its time-out. A
# desktop opened before the tests is also there when a test's program first needs it, however busy
# the machine is then (a program gives the desktop's process 10 seconds to come up). A test that ends
# its prefix's session ends the window held here first ("wineboot --end-session" would wait for it):
# --pid-file says which process holds it.
#
#   wine-desktop.sh [--pid-file F]
set -u
: "${WINEPREFIX:?set WINEPREFIX}"
"$(cd "$(dirname "$0")" && pwd)/wine.sh" notepad </dev/null >/dev/null 2>&1 &
[ "${1:-}" = --pid-file ] && echo "$!" >"$2"
# The desktop's process of this prefix (by the prefix in its environment), within a minute.
for _ in $(seq 1 600); do
  for p in $(pgrep -f 'explorer\.exe /desktop'); do
    tr '\0' '\n' <"/proc/$p/environ" 2>/dev/null | grep -qxF "WINEPREFIX=$WINEPREFIX" && exit 0
  done
  sleep 0.1
done
echo "wine-desktop.sh: the desktop of $WINEPREFIX did not open within 60 s" >&2
exit 1
