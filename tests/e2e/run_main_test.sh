#!/bin/bash
# scripts/run-main.sh, checked without building anything: its options, and a first run in which the
# agent has not yet written its trace file when the script first looks for it, then ends before the
# logon. The script runs in a scratch copy of the tree whose build tools and programs are stand-ins.
#
#   run_main_test.sh --source <source tree>
set -u
SRC=
while [ $# -gt 0 ]; do
  case "$1" in
    --source) SRC=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$SRC" ] || { echo "missing --source" >&2; exit 2; }

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
fail() { echo "FAIL: $*"; for f in "$WORK"/out "$WORK"/err; do [ -f "$f" ] && { echo "--- $f"; cat "$f"; }; done; exit 1; }

# The scratch tree: the script itself, a stand-in for the package installer, and stand-in programs.
tree=$WORK/tree
mkdir -p "$tree/scripts" "$tree/build/linux/bin" "$tree/demo" "$WORK/path"
cp "$SRC/scripts/run-main.sh" "$tree/scripts/"
: >"$tree/demo/users.txt"
marker=$WORK/built
printf '#!/bin/sh\necho "$0 $*" >>"%s"\n' "$marker" >"$tree/scripts/install-deps.sh"
printf '#!/bin/sh\necho "cmake $*" >>"%s"\n' "$marker" >"$WORK/path/cmake"
# The simulator writes its transcript and waits to be stopped.
cat >"$tree/build/linux/bin/td-login-server" <<'SIM'
#!/bin/sh
while [ $# -gt 0 ]; do [ "$1" = "--transcript" ] && t=$2; shift; done
printf '[0] -- listening on 127.0.0.77:5003\r\n[1] -- accepted 127.0.0.1\r\n' >"$t"
exec sleep 300
SIM
printf '#!/bin/sh\nexec sleep 300\n' >"$tree/build/linux/bin/sibling-standin"
printf '#!/bin/sh\nexit 0\n' >"$tree/build/linux/bin/agent-explorer"
# The agent: its trace file appears only after a while (as on a first run), then it ends before the logon.
cat >"$tree/build/linux/bin/tdacli" <<'AGENT'
#!/bin/sh
dir=$(dirname "$0")
sleep 1
printf '%s\r\n' "2026-11-14 11:15:02 PM  -  Information in TDACLI: Listening Port: 5002" \
  "Running As: WinService" "2026-11-14 11:15:03 PM  -  Trace in TDACLI: last words of the agent" \
  >"$dir/192-168-5-20-TDACLI-TraceFile.TXT"
sleep 1
exit 3
AGENT
chmod +x "$tree/scripts/"*.sh "$WORK/path/cmake" "$tree/build/linux/bin/"*
export PATH="$WORK/path:$PATH"

echo "== --help and -h: the usage, nothing built or installed"
for opt in --help -h; do
  "$tree/scripts/run-main.sh" "$opt" >"$WORK/out" 2>"$WORK/err"
  rc=$?
  [ "$rc" -eq 0 ] || fail "$opt: exit status $rc"
  head -n 1 "$WORK/out" | grep -qx 'Usage: scripts/run-main.sh \[--stay\]' || fail "$opt: no usage"
  grep -q -- "--stay" "$WORK/out" || fail "$opt: usage without --stay"
  [ -e "$marker" ] && fail "$opt: built or installed: $(cat "$marker")"
done

echo "== an unknown option: an error with the usage, nothing built"
"$tree/scripts/run-main.sh" --bogus >"$WORK/out" 2>"$WORK/err"
rc=$?
[ "$rc" -eq 2 ] || fail "--bogus: exit status $rc"
grep -qx 'run-main.sh: unknown option: --bogus' "$WORK/err" || fail "--bogus: no error line"
grep -q '^Usage: scripts/run-main.sh' "$WORK/err" || fail "--bogus: no usage"
[ -e "$marker" ] && fail "--bogus: built or installed"

echo "== first run: no trace file at first, then an agent that ends before the logon"
"$tree/scripts/run-main.sh" >"$WORK/out" 2>"$WORK/err"
rc=$?
[ "$rc" -eq 1 ] || fail "first run: exit status $rc (1 expected)"
grep -q 'waiting up to 15 s for the agent.s start-up banner' "$WORK/out" || fail "does not say what it waits for"
grep -q 'waiting up to 60 s for the login' "$WORK/out" || fail "does not say it waits for the login"
grep -q '^FAILED: the agent ended while waiting for the login' "$WORK/err" || fail "no failure line"
grep -qF "Trace in TDACLI: last words of the agent" "$WORK/err" || fail "no trace lines shown"
grep -qF "last lines of the simulator's transcript" "$WORK/err" || fail "no transcript heading"
grep -qF "[1] -- accepted 127.0.0.1" "$WORK/err" || fail "no transcript lines shown"

echo "PASS: run-main"
exit 0
