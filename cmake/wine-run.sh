#!/bin/sh
# Runs a Windows program under 64-bit Wine, in the build tree's private prefix:
#   wine-run.sh --prefix=<dir> program.exe [arguments...]
# Without --prefix, WINEPREFIX must be set. The prefix is created on first use, under a lock, so that
# tests started in parallel do not race to initialise it.
set -e
case "$1" in
  --prefix=*) WINEPREFIX="${1#--prefix=}"; shift ;;
esac
: "${WINEPREFIX:?set WINEPREFIX or pass --prefix=<dir>}"
export WINEPREFIX
# A test may ask for a debug channel (WINEDEBUG=+eventlog); otherwise keep Wine quiet.
export WINEDEBUG="${WINEDEBUG:--all}"
# No Mono or Gecko installer dialog, no window: nothing may wait for a user.
export WINEDLLOVERRIDES="mscoree,mshtml="
export DISPLAY=
# Wine started through wine.sh, with the layout of its address space fixed (see there).
WINE="$(cd "$(dirname "$0")" && pwd)/wine.sh"

if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$(dirname "$WINEPREFIX")"
  (
    flock 9
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
      WINEDEBUG=-all "$WINE" wineboot -i >/dev/null 2>&1 || true
      # Windows need a display driver: the null driver, as there is no display.
      WINEDEBUG=-all "$WINE" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1 || true
      /usr/lib/wine/wineserver -w || true
    fi
  ) 9>"$WINEPREFIX.lock"
fi

exec "$WINE" "$@"
