#!/bin/bash
# Windows build and tests on a Debian machine: cross-compiles the "windows" preset with mingw-w64 and
# runs every test under Wine (the portable tests, the Windows platform tests and the service round
# trip). Installs the Debian packages it needs when they are missing. Exit code: ctest's.
#
#   scripts/windows-tests.sh            (JOBS=<n> to change the build and test parallelism, default 2)
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-2}

# --- packages (mingw-w64, Wine, CMake, Ninja, the GoogleTest sources)
scripts/install-deps.sh windows

# --- build
# The Wine fleet run asks agents built for the host: the Linux release build's when it is there (the
# whole test run builds it first), otherwise the build tree makes one.
HOST_AGENT=
[ -x build/linux/bin/tdacli ] && HOST_AGENT=$PWD/build/linux/bin/tdacli
cmake --preset windows -DTDACLI_HOST_AGENT="$HOST_AGENT"
cmake --build --preset windows -j "$JOBS"

# --- Wine: the build tree's private prefix, one server for the whole run
# Wine started through cmake/wine.sh, with the layout of its address space fixed (see there).
WINE=$PWD/cmake/wine.sh
WINESERVER=/usr/lib/wine/wineserver
[ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)
export WINEPREFIX="$PWD/build/windows/wineprefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
export DISPLAY=

if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "Initialising the Wine prefix $WINEPREFIX"
  # Created once before any test: tests started in parallel would race to create it.
  "$WINE" wineboot -i >/dev/null 2>&1
  "$WINESERVER" -w
fi
# The agent's hidden main form is a real window, and windows need a display driver: Wine's null driver,
# as there is no display here (without one, creating a window fails).
if ! grep -q '"Graphics"="null"' "$WINEPREFIX/user.reg" 2>/dev/null; then
  "$WINE" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1
  "$WINESERVER" -w
fi
"$WINESERVER" -p
stop_server() { "$WINESERVER" -k >/dev/null 2>&1 || true; }
trap stop_server EXIT
# The first program under a new server starts Wine's system processes (service manager, devices),
# which keep its standard output open for as long as they run: start them here, away from the output
# pipes through which ctest waits for each test to finish.
"$WINE" wineboot </dev/null >/dev/null 2>&1
# The desktop, likewise: opened here and kept open for the whole run (see cmake/wine-desktop.sh).
cmake/wine-desktop.sh

# --- tests
set +e
ctest --test-dir build/windows -j "$JOBS" --output-on-failure --timeout 600
rc=$?
set -e
exit $rc
