# What the login runs share on Linux and under Wine (sourced after lib.sh, and under Wine after
# wine_lib.sh): the login web service of the simulator, the files the login of jsmith writes, and the
# login of nuluser, whose server answers hold a NUL.

# Starts the simulator's login web service over $1 (http, or https with a test CA made in $WORK/pki)
# on a free loopback port, for jsmith; stopped with the run. $2: seconds after which it gives up by
# itself; $3: more lines for jsmith's entry ("" for none); further arguments go to the simulator. Sets
# SERVER_PID, SERVER (the agent's Server setting), BASE (the start of the agent's URLs) and
# LOGIN_URL_RE (the rest of the login's URL, an extended regular expression).
start_web_service() {
  local scheme=$1 exit_after=$2 more=$3 host=127.0.0.1 port web_args=(--http 127.0.0.1:0)
  shift 3
  step "login web service simulator over $scheme on a free loopback port"
  {
    jsmith_entry
    [ -z "$more" ] || printf '%s\n' "$more"
  } >"$WORK/users.txt"
  if [ "$scheme" = https ]; then
    mkdir -p "$WORK/pki"
    "$LOGIN_SERVER" --make-test-pki "$WORK/pki" || fail "no test certificates (simulator built without the web service?)"
    web_args=(--https 127.0.0.1:0 --cert "$WORK/pki/server.pem" --key "$WORK/pki/server.key")
    host=localhost
  fi
  "$LOGIN_SERVER" "${web_args[@]}" --users "$WORK/users.txt" --transcript "$WORK/transcript.txt" --quiet \
    "$@" --exit-after "$exit_after" 2>"$WORK/login-server.err" &
  SERVER_PID=$!
  PIDS+=("$SERVER_PID")
  wait_for 10 grep -qsE "listening on $scheme://127.0.0.1:[0-9]+" "$WORK/transcript.txt" ||
    fail "the simulator did not start (built without the web service?)"
  port=$(tr -d '\r' <"$WORK/transcript.txt" | head -n 1 | sed -E 's/.*:([0-9]+)$/\1/')
  if [ "$scheme" = https ]; then SERVER=$host:https:$port; else SERVER=$host:$port; fi
  BASE=$scheme://$host:$port
  LOGIN_URL_RE="/TDLoginWebService/TDLoginWebService.asmx/LoginMethod\?WinName=$USER_NAME&LocalIP=[0-9.]+&Extension=4711"
  echo "web service at $BASE (Server=$SERVER)"
}
# The login of $USER_NAME through the web service: the agent's OpenURL() line, then the login and the
# status report 0 at the server.
web_login_seen() {
  messages | grep -qE "^Trace in TDACLI: WebService_LoginUser - Performing an OpenURL\(\) on: $BASE$LOGIN_URL_RE\$" ||
    fail "no OpenURL() line for the login"
  server_heard "GET $LOGIN_URL_RE" || fail "no login at the server"
  server_heard "GET /TDLoginWebService/TDLoginWebService.asmx/StatusMethod\?WinName=$USER_NAME&Status=0" ||
    fail "no status report at the server"
}
web_logoff_heard() {
  server_heard "GET /TDLoginWebService/TDLoginWebService.asmx/LogOffMethod\?WinName=$USER_NAME&LocalIP=[0-9.]+"
}

# The files the login of jsmith writes, byte for byte.
same_login_files() {
  same_bytes "$APP/TDACFTP.INI" '%s\r\n' "[Tyndrel - Agent Client - FTP Credentials]" "" "[Config]" \
    'ServerTemp=\\fs01\tdtemp\' "FTPServer=ftp.example.com" "UserName=tduser" "EncryptedPassword=9F8E7D6C" \
    "Port=21" "Ssl=False" "AuthTLS=False" "Passive=False" "PassiveUseHostAddr=False" "Protocol=FTP"
  same_bytes "$APP/TDIPMASK.INI" '%s\r\n' "[Tyndrel - Agent Client - Valid IP Mask]" "" "[Config]" "IPMask=127.0.0."
  same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010|ATLOGO:2|010|001"
  same_bytes "$APP/100Screen.KEK" '%s\r\n' "KEK-0001"
  same_bytes "$APP/UseWebCam.TXT" '%s\r\n' "WEBCAM=True"
}

# Code 128 for nuluser, whose server answers hold a NUL: each stored value is cut there, with one
# Warning line each, and no file of the application folder holds a NUL. $1: the seconds the login may
# take; $2: the name of the agent's executable (a pattern of find's -name), whose bytes are not checked.
nuluser_login() {
  local name f
  step "code 128 for a user whose server answers hold a NUL: each stored value is cut there"
  sed -i "s/^CurrentUser=.*\r\$/CurrentUser=nuluser\r/" "$APP/TDRegInfo.TXT"
  send_code 128
  # The web-cam trigger is the last file of the post-login work; the first login wrote one line already.
  second_post_login() { [ "$(messages | grep -cF 'Trace in TDACLI: WebCam Enabled, Making Trigger File')" -eq 2 ]; }
  wait_for "$1" second_post_login || fail "the login of nuluser did not run its post-login work"
  has_message "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User (nuluser) to Server ($SERVER)" ||
    fail "nuluser was not logged in"
  same_bytes "$APP/TDIPMASK.INI" '%s\r\n' "[Tyndrel - Agent Client - Valid IP Mask]" "" "[Config]" "IPMask=10.9."
  same_bytes "$APP/100Screen.KEK" '%s\r\n' "KEK-9"
  same_bytes "$APP/100ScreenParam.TXT" '%s\r\n' "SCR:010"
  for name in IPMask KekInfo HundredScreensParam; do
    [ "$(messages | grep -cxF "Warning in TDACLI: The value of ($name) held a line break and was cut at it.")" -eq 1 ] ||
      fail "not one Warning line for $name"
  done
  while IFS= read -r -d '' f; do
    [ "$(tr -cd '\000' <"$f" | wc -c)" -eq 0 ] || fail "a NUL reached $f"
  done < <(find "$APP" -type f ! -name '*-TraceFile.TXT' ! -name '*-Error.LOG' ! -name "$2" -print0)
  no_errors_logged
}
