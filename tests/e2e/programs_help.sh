#!/bin/bash
# Every program answers "--help" and "-h" with its usage on standard output and exit status 0, and
# refuses an unknown option with one line naming it, then the same usage, on standard error and exit
# status 2, before doing any work: each runs from a folder of its own, which holds nothing but the
# program afterwards, and must end within 20 seconds. tdacli's text is checked in full.
#
#   programs_help.sh --bin DIR          every program in DIR (the release build's build/linux/bin)
#   programs_help.sh --program FILE...  the programs given
set -u

PROGRAMS=()
while [ $# -gt 0 ]; do
  case "$1" in
    --bin)
      for f in "$2"/*; do [ -f "$f" ] && [ -x "$f" ] && PROGRAMS+=("$f"); done
      shift 2 ;;
    --program) PROGRAMS+=("$2"); shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ ${#PROGRAMS[@]} -gt 0 ] || { echo "no programs given" >&2; exit 2; }

WORK=$(mktemp -d "${TMPDIR:-/tmp}/tdacli-help.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
FAILED=0
fail() { echo "FAIL: $*"; FAILED=1; }

# Runs PROGRAM WORD from a fresh folder holding a copy of it; leaves out, err and rc in $RUN.
run() {
  local prog=$1 word=$2 name
  name=$(basename "$prog")
  RUN=$WORK/$name$word
  mkdir -p "$RUN/app"
  cp "$prog" "$RUN/app/$name"
  (cd "$RUN/app" && exec timeout 20 "./$name" "$word") >"$RUN/out" 2>"$RUN/err"
  echo $? >"$RUN/rc"
  local left
  left=$(ls -A "$RUN/app")
  [ "$left" = "$name" ] || fail "$name $word left files behind: $(echo "$left" | tr '\n' ' ')"
}

tdacli_help() {
  local app=$1
  cat <<EOF
Usage: tdacli [--help]

The Tyndrel Agent Client Login Service (service "TDACLI") for Linux. There is no
service manager: started, tdacli is the service and runs in the foreground until SIGTERM or
Ctrl+C (SIGINT) stops it.

Its application folder is the folder of the executable, here $app/
It holds the settings file TDRegInfo.TXT, the trace and error logs and the files the agent
shares with the other programs of the suite: copy tdacli into that folder and start it there.

Control codes reach the running service as decimal text on its control endpoint, the datagram
socket "<application folder>/TDACLI.svc" (here $app/TDACLI.svc), for example:
  agent-explorer control TDACLI 128 --app-dir $app
A second agent is not started in the folder of a running one.

With the file thinterminal.dat in the application folder it runs in user-session mode instead
(one agent per user, as on a Terminal Server): the command listener opens after the user's
login and logons arrive as request files.

Options:
  -h, --help   this text; nothing is started and no file is written
Other words on the command line are ignored.
EOF
}

for prog in "${PROGRAMS[@]}"; do
  name=$(basename "$prog")
  run "$prog" --help
  help_dir=$RUN
  [ "$(cat "$RUN/rc")" = 0 ] || fail "$name --help: exit status $(cat "$RUN/rc"), expected 0"
  [ -s "$RUN/err" ] && fail "$name --help wrote to standard error: $(head -n 3 "$RUN/err")"
  # "Usage: NAME ..." (or "Usage:" and the forms on the next lines).
  first=$(head -n 2 "$RUN/out" | tr '\n' ' ')
  case "$first" in
    [Uu]"sage: $name"* | [Uu]"sage:  $name"* | [Uu]"sage:   $name"*) ;;
    *) fail "$name --help does not begin with its usage: \"$first\"" ;;
  esac
  if [ "$name" = tdacli ]; then
    tdacli_help "$(cd "$RUN/app" && pwd -P)" | cmp -s - "$RUN/out" ||
      fail "tdacli --help: $(tdacli_help "$(cd "$RUN/app" && pwd -P)" | diff - "$RUN/out")"
  fi

  run "$prog" -h
  [ "$(cat "$RUN/rc")" = 0 ] || fail "$name -h: exit status $(cat "$RUN/rc"), expected 0"
  [ -s "$RUN/err" ] && fail "$name -h wrote to standard error"
  # The same text but for the folder tdacli names.
  sed "s|$WORK/$name-h/|$WORK/$name--help/|g" "$RUN/out" | cmp -s - "$help_dir/out" ||
    fail "$name -h does not print what --help prints"

  run "$prog" --bogus-option
  [ "$(cat "$RUN/rc")" = 2 ] || fail "$name --bogus-option: exit status $(cat "$RUN/rc"), expected 2"
  [ -s "$RUN/out" ] && fail "$name --bogus-option wrote to standard output: $(head -n 3 "$RUN/out")"
  { printf '%s: unknown option --bogus-option\n' "$name"
    sed "s|$WORK/$name--help/|$WORK/$name--bogus-option/|g" "$help_dir/out"; } | cmp -s - "$RUN/err" ||
    fail "$name --bogus-option: standard error is not the refusal and the usage: $(head -n 2 "$RUN/err")"
  echo "checked $name"
done

[ "$FAILED" = 0 ] || exit 1
echo "PASS: every program answers --help, -h and a bogus option (${#PROGRAMS[@]} programs)"
