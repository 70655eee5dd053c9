# Checks shared by the end-to-end runs. The sourcing script defines messages() (the trace messages
# without their stamps) and fail().

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
has_line() { [ -f "$1" ] && tr -d '\r' <"$1" | grep -qE -- "$2"; }
alive() { kill -0 "$1" 2>/dev/null; }
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
