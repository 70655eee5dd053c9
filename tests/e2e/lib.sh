# What the end-to-end runs share. The sourcing script defines fail(), usually as fail_showing with the
# files worth seeing when a check fails.

step() { echo "== $*"; }
program_trace() { ls "$APP"/*-TDACLI-TraceFile.TXT 2>/dev/null | head -n 1; }
# The trace's messages, one per line, without the time stamps (a NUL quoted from a peer is left out:
# the shell cannot hold one).
messages() { local f; f=$(program_trace); [ -n "$f" ] && sed -E 's/^[0-9-]+ [0-9:]+ [AP]M  -  //' "$f" | tr -d '\r\000'; }
# Ends the run: "FAIL: $1", then the last lines of each of the other arguments that is a file.
fail_showing() {
  local f
  echo "FAIL: $1"
  shift
  for f in "$@"; do
    [ -f "$f" ] && { echo "--- $(basename "$f")"; tail -n 60 "$f" | tr -d '\r' | cut -c1-1000; }
  done
  exit 1
}
# Takes the command line's "--option value" pairs into variables. Each entry "option=VAR" names an
# option that must be given, "option=VAR?" one that may be left out (VAR keeps the value it has); then
# "--" and the arguments:  take_options tdacli=TDACLI agents=N? -- "$@"
# An unknown option or a missing one ends the run with exit code 2.
take_options() {
  local -A var_of=()
  local required=() entry option
  while [ "$1" != -- ]; do
    option=${1%%=*} entry=${1#*=}
    shift
    var_of[$option]=${entry%\?}
    [ "$entry" != "${entry%\?}" ] || { required+=("$entry"); printf -v "$entry" '%s' ""; }
  done
  shift
  while [ $# -gt 0 ]; do
    option=${1#--}
    [ "$option" != "$1" ] && [ -n "${var_of[$option]:-}" ] && [ $# -ge 2 ] ||
      { echo "unknown argument $1" >&2; exit 2; }
    printf -v "${var_of[$option]}" '%s' "$2"
    shift 2
  done
  for entry in "${required[@]}"; do
    [ -n "${!entry}" ] || { echo "missing arguments" >&2; exit 2; }
  done
}

# A run of programs on Linux: a scratch folder $WORK named after $1 with the application folder $APP
# in it, and PIDS, the programs to stop; at exit they are stopped and the folder removed.
begin_run() {
  STARTED=$(date +%s%N)
  WORK=$(mktemp -d "${TMPDIR:-/tmp}/$1.XXXXXX") || exit 1
  APP=$WORK/app
  PIDS=()
  trap end_run EXIT
}
stop_all() {
  local p
  for p in "${PIDS[@]}"; do kill -TERM "$p" 2>/dev/null; done
  for p in "${PIDS[@]}"; do
    for _ in $(seq 50); do kill -0 "$p" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$p" 2>/dev/null
    wait "$p" 2>/dev/null
  done
  PIDS=()
}
end_run() {
  stop_all
  rm -rf "$WORK"
}
# What became of a code sent with `agent-explorer control` ("code 128 sent to TDACLI", or why not);
# wine_lib.sh has the one of the runs under Wine.
control() { "$EXPLORER" control "$1" "$2" --app-dir "$APP"; }

# The agent's folder $APP with a copy of $TDACLI and a console-made settings file: the user $USER_NAME
# against $SERVER, the notification method $1, a free listening port PORT below 32768.
prepare_agent() {
  step "settings: the server, the user, the $1 method, a free listening port below 32768"
  mkdir -p "$APP"
  cp "$TDACLI" "$APP/tdacli"
  PORT=$(free_port) || fail "no free port"
  settings_text "$PORT" "$1" "$WORK/temp" >"$APP/TDRegInfo.TXT"
}
# prepare_agent's $1 against the login server simulator, which is stopped with the run.
prepare_login_run() {
  step "login server simulator on a loopback address of its own"
  start_login_server 300
  PIDS+=("$SERVER_PID")
  prepare_agent "$1"
}
# Starts a sibling stand-in in $APP for each argument "NAME" or "NAME:ANSWERS" (130=131,...), each
# writing what it hears to $WORK/NAME.log, and waits for their endpoints. STANDIN_PID_OF[NAME] is its
# process; all are stopped with the run.
start_standins() {
  local entry name answer
  declare -gA STANDIN_PID_OF=()
  step "stand-ins (name:answers) $*"
  for entry; do
    name=${entry%%:*} answer=()
    [ "$name" = "$entry" ] || answer=(--answer "${entry#*:}")
    "$STANDIN" --name "$name" --app-dir "$APP" "${answer[@]}" --log "$WORK/$name.log" 2>"$WORK/$name.err" &
    STANDIN_PID_OF[$name]=$!
    PIDS+=("$!")
  done
  endpoints_open() { local n; for n in "${!STANDIN_PID_OF[@]}"; do [ -S "$APP/$n.svc" ] || return 1; done; }
  wait_for 20 endpoints_open || fail "the stand-ins did not open their endpoints"
}
# Starts the agent in $APP as AGENT, its output in $WORK/tdacli.log (stopped with the run), and waits
# for the trace message $1. Further arguments: the command that starts it, ./tdacli unless given.
launch_agent() {
  local banner=$1
  shift
  step "tdacli in its application folder"
  (cd "$APP" && exec "${@:-./tdacli}") >"$WORK/tdacli.log" 2>&1 &
  AGENT=$!
  PIDS+=("$AGENT")
  wait_for 60 has_message "$banner" || fail "no start-up banner"
}
# launch_agent for the agent run as a service: its banner, then its control endpoint.
launch_service_agent() {
  launch_agent "Running As: WinService" "$@"
  wait_for 20 test -S "$APP/TDACLI.svc" || fail "no control endpoint TDACLI.svc"
}
# SIGTERM to the agent, which ends within 30 seconds.
term_agent() {
  kill -TERM "$AGENT"
  wait_for 30 ended "$AGENT" || fail "the agent did not stop"
}

# Polls (10 times a second, at most $1 seconds) until the command succeeds.
wait_for() {
  local limit=$1 deadline
  shift
  deadline=$(($(date +%s%N) + limit * 1000000000))
  until "$@"; do
    [ "$(date +%s%N)" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}
has_message() { messages | grep -qxF -- "$1"; }
# The agent's own time stamp of a trace line, in seconds since the epoch: the line whose message is
# exactly $1, the $2-th of them ("last" for the last one; default the first). Time windows are measured
# between such stamps, never from when a script noticed a line: the trace writes whole seconds, so a
# window measured this way is within a second of the real one however busy the machine is.
stamp_of() {
  local f stamp
  f=$(program_trace)
  [ -n "$f" ] || return 1
  # The message goes through the environment: awk -v would take its backslashes for escapes.
  stamp=$(tr -d '\r\000' <"$f" | WANT=$1 awk -v n="${2:-1}" '
    match($0, /^[0-9-]+ [0-9:]+ [AP]M  -  /) && substr($0, RLENGTH + 1) == ENVIRON["WANT"] {
      seen++; at = substr($0, 1, RLENGTH - 5); if (n != "last" && seen == n + 0) { print at; exit }
    }
    END { if (n == "last" && seen) print at }')
  [ -n "$stamp" ] && date -d "$stamp" +%s
}
# The agent's stamps, in seconds since the epoch, of every trace line whose message is exactly $1.
stamps_of() {
  local f stamp
  f=$(program_trace)
  [ -n "$f" ] || return 0
  tr -d '\r\000' <"$f" | WANT=$1 awk '
    match($0, /^[0-9-]+ [0-9:]+ [AP]M  -  /) && substr($0, RLENGTH + 1) == ENVIRON["WANT"] {
      print substr($0, 1, RLENGTH - 5)
    }' |
    while read -r stamp; do date -d "$stamp" +%s; done
}
has_line() { [ -f "$1" ] && tr -d '\r' <"$1" | grep -qE -- "$2"; }
alive() { kill -0 "$1" 2>/dev/null; }
ended() { ! alive "$1"; }
# A trace message holds the text $1.
trace_says() { messages | grep -qF -- "$1"; }
# The login server simulator heard the line matching $1 (extended regular expression) from the agent.
server_heard() { has_line "$WORK/transcript.txt" "^\[[0-9]+\] C> $1\$"; }
# No Error line in the trace.
no_errors_logged() { ! messages | grep -q '^Error in ' || fail "an error was logged: $(messages | grep '^Error in ')"; }
# Code $1 goes to TDACLI through the script's control(), and is sent.
send_code() {
  local out rc
  out=$(control TDACLI "$1")
  rc=$?
  [ "$out" = "code $1 sent to TDACLI" ] || fail "code $1 not delivered (exit status $rc): $out"
}
# The process $1, a child of this shell, ends within $2 seconds with exit status 0.
ends_with_status_0() {
  local rc
  wait_for "$2" ended "$1" || fail "still running after $2 s"
  wait "$1"
  rc=$?
  [ "$rc" -eq 0 ] || fail "exit status $rc"
}
# A "STOP=MySelf" request file ends the agent AGENT within $1 seconds: exit status 0, the request's
# trace line last, no STOP banner, no request file left.
stop_myself() {
  request "STOP=MySelf" stop
  ends_with_status_0 "$AGENT" "$1"
  [ "$(messages | tail -n 1)" = "Trace in TDACLI: Processed Message Request: STOP=MySelf" ] ||
    fail "the trace ends with: $(messages | tail -n 1)"
  ! messages | grep -qF '*  STOP  *' || fail "the STOP banner was written"
  ! ls "$APP"/*.TDACLI >/dev/null 2>&1 || fail "request files left: $(ls "$APP"/*.TDACLI)"
}
# The trace ends with the STOP banner.
ends_with_stop_banner() {
  [ "$(messages | tail -n 4)" = "Information in TDACLI: TD Agent Client Login Service Stopped
Information in TDACLI: **********
Information in TDACLI: *  STOP  *
Information in TDACLI: **********" ]
}
# Drops a request file for the agent, named as the siblings name theirs.
request() { printf '%s\r\n' "$1" >"$APP/$(date +%Y%m%d%H%M%S)-$2.TDACLI"; }
# The greeting of the listener on $1.
greeting() { (exec 3<>"/dev/tcp/127.0.0.1/$1" && timeout 5 head -c 7 <&3) 2>/dev/null; }
# The messages appear in this order in the trace (other lines may come in between).
in_order() {
  local all want at start=1
  all=$(messages)
  for want; do
    at=$(tail -n +"$start" <<<"$all" | grep -nxF -- "$want" | head -n 1 | cut -d: -f1)
    [ -n "$at" ] || fail "after trace message $((start - 1)), the trace lacks: $want"
    start=$((start + at))
  done
}
# The file holds exactly these bytes (printf format).
same_bytes() {
  local file=$1 expected
  shift
  [ -f "$file" ] || fail "missing file $(basename "$file")"
  # shellcheck disable=SC2059
  expected=$(printf "$@" | od -An -c)
  [ "$(od -An -c <"$file")" = "$expected" ] || fail "$(basename "$file") holds:
$(od -An -c <"$file")
expected:
$expected"
}

port_free() { ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
# Prints a free loopback port from 20000 to 32700 (a console port must stay below 32768).
free_port() {
  local p
  for p in $(shuf -i 20000-32700 -n 50); do
    if port_free "$p"; then echo "$p"; return 0; fi
  done
  return 1
}
# Prints a console-made "TDRegInfo.TXT" for the user $USER_NAME against the login server $SERVER.
# $1: the console's listening port, $2: the notification method, $3: LocalTemp as the agent sees it.
settings_text() {
  printf '%s\r\n' "Tyndrel - Agent Client Configuration" "[Config]" "Ext=4711" "Server=$SERVER" "UseTrace=False" \
    "LocalTemp=$3" "CurrentUser=$USER_NAME" "CurrentEvent=N/A" "SvrTemp=Unknown" \
    "NotificationMethod=$2" "PopEx=false" "PopWinName=false" "ListeningPorts=5001,$1,6001,6002"
}

# Prints the simulator's users-file entry of the agent jsmith.
jsmith_entry() {
  cat <<'EOF'
# The one agent of this workstation.
[jsmith]
ServerTemp=\\fs01\tdtemp\:FTP@ftp.example.com:tduser:9F8E7D6C
LocalTemp=c:\%appdir%\Capture
LiveID=48213:10.1.2.3:5020:T
KekInfo=KEK-0001
ValidIPMask=127.0.0.
Trace=False
WebCam=true
100Screen=SCR:010|ATLOGO:2|010|001
EOF
}

# Writes the users file of the simulator: the agent jsmith, and nuluser whose answers hold a NUL.
write_users() {
  jsmith_entry >"$WORK/users.txt"
  # A second agent whose server answers hold a NUL inside values (the agent cuts each value there).
  printf '%s\n' '[nuluser]' 'ServerTemp=\\fs01\tdtemp\' 'LocalTemp=c:\%appdir%\Capture' \
    'LiveID=48214:10.1.2.3:5020:T' 'Trace=False' 'WebCam=true' >>"$WORK/users.txt"
  printf 'KekInfo=KEK-9\0planted\nValidIPMask=10.9.\0x\n100Screen=SCR:010\0planted\n' >>"$WORK/users.txt"
}

# Prints a loopback address for a simulator on the fixed login port 5003, reserved for this run for as
# long as it lives: a run that stops its simulator goes on expecting the agent's connects to be
# refused there, so no other run may start one on that address meanwhile. Runs take 127.0.1.2-254,
# each reservation a folder holding the owner's process id (one whose owner has ended is taken
# over); the in-process tests take their simulators from 127.0.0.x.
reserve_loopback() {
  local locks=${TMPDIR:-/tmp}/tdacli-loopback x owner
  mkdir -p "$locks"
  for x in $(shuf -i 2-254); do
    if ! mkdir "$locks/127.0.1.$x" 2>/dev/null; then
      owner=$(cat "$locks/127.0.1.$x/pid" 2>/dev/null)
      if [ -n "$owner" ] && ! kill -0 "$owner" 2>/dev/null; then
        rm -rf "$locks/127.0.1.$x"
        mkdir "$locks/127.0.1.$x" 2>/dev/null || continue
      elif [ -z "$owner" ] && [ -n "$(find "$locks/127.0.1.$x" -maxdepth 0 -mmin +1 2>/dev/null)" ]; then
        # Left without its owner's id by a run killed at the wrong moment.
        rm -rf "$locks/127.0.1.$x"
        mkdir "$locks/127.0.1.$x" 2>/dev/null || continue
      else
        continue
      fi
    fi
    echo $$ >"$locks/127.0.1.$x/pid"
    echo "127.0.1.$x"
    return 0
  done
  return 1
}

# Starts the login server simulator for the agent jsmith on a loopback address reserved for the run;
# sets SERVER and SERVER_PID. $1: seconds after which the simulator gives up by itself; $2 (optional, a
# word that does not start with "-"): a users file of the caller's instead of the one written here;
# further arguments go to the simulator (a --fault).
start_login_server() {
  local x pid exit_after=$1
  shift
  if [ $# -gt 0 ] && [ "${1#-}" = "$1" ]; then
    cp "$1" "$WORK/users.txt"
    shift
  else
    write_users
  fi
  SERVER=
  for _ in $(seq 20); do
    x=$(reserve_loopback) || break
    rm -f "$WORK/transcript.txt"
    "$LOGIN_SERVER" --listen "$x" --users "$WORK/users.txt" --transcript "$WORK/transcript.txt" --quiet \
      --exit-after "$exit_after" "$@" 2>"$WORK/login-server.err" &
    pid=$!
    if wait_for 10 bash -c "grep -qF 'listening on $x:5003' '$WORK/transcript.txt' 2>/dev/null || ! kill -0 $pid" &&
       alive $pid; then
      SERVER_PID=$pid
      SERVER=$x
      break
    fi
    wait $pid 2>/dev/null
  done
  [ -n "$SERVER" ] || fail "no loopback address free for the simulator"
  echo "simulator on $SERVER:5003"
}
