# What the fleet console's end-to-end runs share (sourced after lib.sh): the agents' settings and
# users, and the expected rows of the table, the CSV and the JSON. PORT[i] is agent i's port (agent 0 is
# the one whose allow-list refuses the console), N the number of agents that answer, OTHERS the hosts
# that do not ("<port> <state>"), in the order the host list names them after the agents.

COMPUTER=$(hostname)
COMPUTER=${COMPUTER%%.*}
COMPUTER=${COMPUTER:0:15}
COMPUTER=${COMPUTER^^}
ME=$(id -un)

# Compares an output with the expected text (a file each); the difference goes to diff.txt.
same_output() {
  diff "$2" "$1" >"$WORK/diff.txt" || fail "$3 differs from what was expected (diff.txt: expected < > got)"
}
# The same with the expected text given as an argument.
same_text() {
  printf '%s' "$2" >"$WORK/expected.txt"
  same_output "$1" "$WORK/expected.txt" "$3"
}

# Current users that test the output's guards: formula starts, a comma, a quote, an escape character.
user_of() {
  case "$1" in
    1) printf '%s' "=cmd" ;;
    2) printf '%s' "-jdoe" ;;
    3) printf '%s' "@ops" ;;
    4) printf '%s' "+44" ;;
    5) printf '%s' "smith, j" ;;
    6) printf 'esc\033[31m' ;;
    7) printf '%s' 'say "hi"' ;;
    *) printf 'user%s' "$1" ;;
  esac
}
# The settings file exactly as the agent's save writes it.
settings_of() {  # $1 agent, $2 port, $3 server
  printf '%s\r\n' "Tyndrel - Agent Client Configuration" "[Config]" "Ext=$((4000 + $1))" "Server=$3" \
    "UseTrace=False" "LocalTemp=unknown" "CurrentUser=$(user_of "$1")" "CurrentEvent=N/A" "SvrTemp=Unknown" \
    "NotificationMethod=ServiceMessage" "PopEx=false" "PopWinName=false" "ListeningPorts=5001,$2,6001,6002"
}

csv_user() {
  case "$1" in
    1 | 2 | 3 | 4) printf "'%s" "$(user_of "$1")" ;;
    5) printf '"smith, j"' ;;
    6) printf 'esc\\x1B[31m' ;;
    7) printf '"say ""hi"""' ;;
    *) user_of "$1" ;;
  esac
}
json_user() {
  case "$1" in
    6) printf 'esc\\u001b[31m' ;;
    7) printf 'say \\"hi\\"' ;;
    *) user_of "$1" ;;
  esac
}
# The table cut at the header's column starts: "cell|cell|...", the round-trip times as RTT; a cell
# that runs into the next column's gap is reported.
table_cells() {
  awk '
    NR == 1 { for (i = 1; i <= length($0); i++) if (substr($0, i, 1) != " " && (i == 1 || substr($0, i - 1, 1) == " ")) at[++n] = i }
    {
      out = ""
      for (k = 1; k <= n; k++) {
        end = k < n ? at[k + 1] - 1 : length($0)
        cell = substr($0, at[k], end - at[k] + 1)
        if (k < n && length($0) >= at[k + 1] && substr($0, at[k + 1] - 2, 2) != "  ") print "MISALIGNED line " NR
        if (k > 1 && at[k] <= length($0) && substr($0, at[k] - 1, 1) != " ") print "MISALIGNED line " NR
        sub(/ +$/, "", cell)
        if (k == 4 && NR > 1 && cell ~ /^[0-9]+$/) cell = "RTT"
        out = out (k > 1 ? "|" : "") cell
      }
      print out
    }' "$1"
}
esc_table() { sed 's/\x1b/\\x1B/g'; }

# The expected table cells (table_cells' form), CSV and JSON of getinfo over agents 1..N and OTHERS.
expected_cells() {
  local i o
  echo "host|port|state|rtt_ms|computer|current_user|ext|server|notification_method|listening_ports"
  for i in $(seq 1 "$N"); do
    echo "127.0.0.1|${PORT[i]}|ok|RTT|$COMPUTER|$(user_of "$i" | esc_table)|$((4000 + i))|10.1.1.5|ServiceMessage|5001,${PORT[i]},6001,6002"
  done
  for o in "${OTHERS[@]}"; do echo "127.0.0.1|${o%% *}|${o#* }|||||||"; done
}
expected_csv() {
  local i o
  printf '%s\r\n' "host,port,state,rtt_ms,computer,current_user,ext,server,notification_method,listening_ports"
  for i in $(seq 1 "$N"); do
    printf '%s\r\n' "127.0.0.1,${PORT[i]},ok,RTT,$COMPUTER,$(csv_user "$i"),$((4000 + i)),10.1.1.5,ServiceMessage,\"5001,${PORT[i]},6001,6002\""
  done
  for o in "${OTHERS[@]}"; do printf '%s\r\n' "127.0.0.1,${o%% *},${o#* },,,,,,,"; done
}
# $1: the summary's counts after "ok" as JSON lines ('"timeout": 2' ...), one argument each.
expected_json() {
  local i o k=0 c
  printf '{\n  "command": "getinfo",\n  "time": "TIME",\n  "summary": {\n    "hosts": %d,\n    "ok": %d' $((N + ${#OTHERS[@]})) "$N"
  for c in "$@"; do printf ',\n    %s' "$c"; done
  printf '\n  },\n  "hosts": [\n'
  for i in $(seq 1 "$N"); do
    printf '    {\n      "host": "127.0.0.1",\n      "port": %d,\n      "state": "ok",\n      "rtt_ms": RTT,\n' "${PORT[i]}"
    printf '      "computer": "%s",\n      "network_user": "%s",\n      "current_user": "%s",\n' "$COMPUTER" "$ME" "$(json_user "$i")"
    printf '      "ext": "%d",\n      "server": "10.1.1.5",\n      "notification_method": "ServiceMessage",\n' $((4000 + i))
    printf '      "listening_ports": "5001,%d,6001,6002",\n      "pop4ext": "false",\n      "pop4win": "false"\n    }' "${PORT[i]}"
    [ "$i" -lt "$N" ] || [ ${#OTHERS[@]} -gt 0 ] && printf ','
    printf '\n'
  done
  for o in "${OTHERS[@]}"; do
    k=$((k + 1))
    printf '    {\n      "host": "127.0.0.1",\n      "port": %d,\n      "state": "%s",\n      "rtt_ms": null\n    }' "${o%% *}" "${o#* }"
    [ $k -lt ${#OTHERS[@]} ] && printf ','
    printf '\n'
  done
  printf '  ]\n}\n'
}
# set's CSV rows: $1 the result of the agents' rows.
expected_set_csv() {
  local i o
  printf '%s\r\n' "host,port,state,rtt_ms,setting,current,new,result"
  for i in $(seq 1 "$N"); do printf '%s\r\n' "127.0.0.1,${PORT[i]},ok,RTT,server,10.1.1.5,10.2.2.2,$1"; done
  for o in "${OTHERS[@]}"; do printf '%s\r\n' "127.0.0.1,${o%% *},${o#* },,server,,10.2.2.2,"; done
}
# The round-trip times and the time stamp of an output made comparable.
rtt_csv() { sed -E 's/^(127\.0\.0\.1,[0-9]+,ok),[0-9]+,/\1,RTT,/' "$1"; }
rtt_json() {
  sed -E 's/^(      "rtt_ms": )[0-9]+,$/\1RTT,/; s/^(  "time": )"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}",$/\1"TIME",/' "$1"
}

# The host file of agents 1..N, after the comment line "# $1".
write_hosts_file() {
  local i
  {
    echo "# $1"
    for i in $(seq 1 "$N"); do echo "127.0.0.1:${PORT[i]}"; done
  } >"$WORK/hosts.txt"
}
# The port of fleet-peers' host of the kind $1 (its ports file has CR LF under Wine).
peer() { tr -d '\r' <"$WORK/peers.txt" | awk -v n="$1" '$1 == n { print $2 }'; }
read_peers() { SILENT=$(peer silent) WRONG=$(peer wrong) FLOOD=$(peer flood) TRICKLE=$(peer trickle); }

# getinfo over $HOSTS as $1 (table, csv or json) with the time-out $2: exit code 1, and the output is
# what agents 1..N and OTHERS give (the round-trip times and the time stamp aside). $3: the function
# that compares standard error with $SUMMARY (same_text's arguments), or "" to leave it unchecked;
# further arguments: the JSON summary's counts after "ok" (expected_json's).
getinfo_as() {
  local format=$1 timeout=$2 same_err=$3 rc t0 what args=(--format "$1")
  shift 3
  case $format in
    table) what=table args=() ;;
    csv) what=CSV ;;
    json) what=JSON ;;
  esac
  step "getinfo as ${what/table/a table}"
  t0=$(date +%s%N)
  fleet getinfo --hosts "$HOSTS" --timeout "$timeout" "${args[@]}" >"$WORK/out.$format" 2>"$WORK/err.$format"
  rc=$?
  echo "getinfo over $((N + ${#OTHERS[@]})) hosts: $(( ($(date +%s%N) - t0) / 1000000 )) ms"
  [ $rc -eq 1 ] || fail "getinfo ${args[*]}: exit code $rc"
  [ -z "$same_err" ] || "$same_err" "$WORK/err.$format" "$SUMMARY
" "standard error of getinfo${args[*]:+ ${args[*]}}"
  case $format in
    table) table_cells "$WORK/out.table" >"$WORK/table.txt"; expected_cells >"$WORK/table.expected" ;;
    csv) rtt_csv "$WORK/out.csv" >"$WORK/csv.txt"; expected_csv >"$WORK/csv.expected" ;;
    json) rtt_json "$WORK/out.json" >"$WORK/json.txt"; expected_json "$@" >"$WORK/json.expected" ;;
  esac
  same_output "$WORK/$format.txt" "$WORK/$format.expected" "the $what"
}

# The two set steps of a run: without --apply the change is shown and no settings file changes; with
# it every answering agent stores the new server and the refusing one keeps its own. $1: the
# time-out; $2: the function that compares standard error with a text (same_text's arguments).
check_set_dry_and_apply() {
  local timeout=$1 same_err=$2 rc before
  checksums() { md5sum "$WORK"/a*/TDRegInfo.TXT; }
  step "set without --apply: the change is shown, nothing is sent"
  before=$(checksums)
  fleet set server=10.2.2.2 --hosts "$HOSTS" --timeout "$timeout" --format csv >"$WORK/out.dry" 2>"$WORK/err.dry"
  rc=$?
  [ $rc -eq 1 ] || fail "set without --apply: exit code $rc"
  "$same_err" "$WORK/err.dry" "$SUMMARY; $N would change
" "standard error of set without --apply"
  [ "$(checksums)" = "$before" ] || fail "a settings file changed without --apply"
  rtt_csv "$WORK/out.dry" >"$WORK/dry.txt"
  expected_set_csv "would change" >"$WORK/dry.expected"
  same_output "$WORK/dry.txt" "$WORK/dry.expected" "set without --apply"

  step "set --apply: every agent stores the new server and says so"
  fleet set server=10.2.2.2 --apply --hosts "$HOSTS" --timeout "$timeout" --format csv >"$WORK/out.apply" 2>"$WORK/err.apply"
  rc=$?
  [ $rc -eq 1 ] || fail "set --apply: exit code $rc"
  "$same_err" "$WORK/err.apply" "$SUMMARY; $N changed
" "standard error of set --apply"
  rtt_csv "$WORK/out.apply" >"$WORK/apply.txt"
  expected_set_csv changed >"$WORK/apply.expected"
  same_output "$WORK/apply.txt" "$WORK/apply.expected" "set --apply"
  for i in $(seq 1 "$N"); do
    same_bytes "$WORK/a$i/TDRegInfo.TXT" '%s\n' "$(settings_of "$i" "${PORT[i]}" 10.2.2.2)"
  done
  same_bytes "$WORK/a0/TDRegInfo.TXT" '%s\n' "$(settings_of 0 "${PORT[0]}" 10.1.1.5)"
}

# Agents 0..N, each in its own folder $WORK/a<i> with a copy of $TDACLI, its own free port (PORT[i],
# all of them in TAKEN) and its settings file; agent 0 serves one console only, which is not this one.
prepare_agents() {
  local i p d
  cp "$TDACLI" "$WORK/tdacli"
  declare -gA TAKEN=()
  PORT=()
  for i in $(seq 0 "$N"); do
    for _ in $(seq 20); do
      p=$(free_port) || fail "no free port"
      [ -z "${TAKEN[$p]:-}" ] && break
    done
    TAKEN[$p]=1
    PORT[i]=$p
    d=$WORK/a$i
    mkdir -p "$d"
    ln "$WORK/tdacli" "$d/tdacli" 2>/dev/null || cp "$WORK/tdacli" "$d/tdacli"
    settings_of "$i" "$p" 10.1.1.5 >"$d/TDRegInfo.TXT"
  done
  printf '%s\r\n' "# the help desk" "10.255.255.1" >"$WORK/a0/TDACLI-AllowedConsoles.TXT"
}

# Starts the prepared agents and waits up to $1 seconds until every one reports its listening port.
start_agents() {
  local i
  for i in $(seq 0 "$N"); do
    (cd "$WORK/a$i" && exec ./tdacli) >/dev/null 2>&1 &
    PIDS+=("$!")
  done
  listening() {
    [ "$(grep -l "Listening Port: " "$WORK"/a*/*-TDACLI-TraceFile.TXT 2>/dev/null | wc -l)" -eq $((N + 1)) ]
  }
  wait_for "$1" listening || fail "not every agent listens"
}
