#!/bin/bash
# The Windows Installer package under Wine's msiexec, in a fresh prefix of its own:
#   install with SERVER, EXT, LISTENINGPORTS and CONSOLEHOSTS -> the service as "/s" installs it, running,
#   its banner with the given values, a fresh TDRegInfo.TXT and the allowed-consoles list
#   -> an upgrade to a higher version keeps the settings file and the service
#   -> the older package refuses to downgrade, with its message
#   -> msiexec /x removes the service, the executable and the event source, and leaves the settings,
#      the list and the logs
#   -> USERSESSION=1: "thinterminal.dat" and the Run entry, no service; removed again by msiexec /x.
#
#   msi_install.sh --msi <package> --msi-next <higher package> --code <ProductCode> --code-next <ProductCode>
#                  --svctool <svctool.exe> --work <dir>
set -u

# shellcheck source=tests/e2e/lib.sh
source "$(dirname "$0")/../e2e/lib.sh"
# shellcheck source=tests/e2e/wine_lib.sh
source "$(dirname "$0")/../e2e/wine_lib.sh"
take_options msi=MSI msi-next=MSI_NEXT code=CODE code-next=CODE_NEXT svctool=SVCTOOL work=WORK -- "$@"
begin_wine_run

APP="$WINEPREFIX/drive_c/Program Files/Tyndrel/Agent Client"
WIN_APP='C:\Program Files\Tyndrel\Agent Client'
PKG=$WINEPREFIX/drive_c/pkg
UNINSTALL_KEY='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
EVENT_KEY='HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\TDACLI'
RUN_KEY='HKLM\Software\Microsoft\Windows\CurrentVersion\Run'

# Shows the trace, and the installer's logs as text beside wine-stderr.log.
fail() {
  local f
  for f in "$PKG"/*.log; do
    [ -f "$f" ] && log_text "$f" >"$WORK/$(basename "$f")"
  done
  fail_showing "$*" "$APP"/*TraceFile.TXT "$WORK"/*.log
}
msiexec() { "$WINE" msiexec "$@" </dev/null >>"$LOG" 2>&1; }
reg_query() { "$WINE" reg query "$@" 2>>"$LOG" | tr -d '\r'; return "${PIPESTATUS[0]}"; }
# A Windows Installer log as text, whatever its encoding.
log_text() {
  if head -c 2 "$1" | od -An -tx1 | grep -q 'ff fe'; then iconv -f UTF-16LE -t UTF-8 "$1"; else cat "$1"; fi | tr -d '\r'
}
fresh_settings() {  # ext server ports
  printf '%s\r\n' "Tyndrel - Agent Client Configuration" "[Config]" "Ext=$1" "Server=$2" "UseTrace=False" \
    "LocalTemp=Unknown" "CurrentUser=N/A" "CurrentEvent=N/A" "SvrTemp=Unknown" "NotificationMethod=FileMessage" \
    "PopEx=false" "PopWinName=false" "ListeningPorts=$3"
}

start_wine
mkdir -p "$PKG"
cp "$MSI" "$PKG/tdacli.msi"
cp "$MSI_NEXT" "$PKG/tdacli-next.msi"

step "install: msiexec /i tdacli.msi /qn SERVER=127.0.0.1 EXT=4711 LISTENINGPORTS=1,0,2,3 CONSOLEHOSTS=..."
# Listening port 0 (the second entry): any free port, as the default may be taken on a build machine.
msiexec /i 'C:\pkg\tdacli.msi' /qn SERVER=127.0.0.1 EXT=4711 LISTENINGPORTS=1,0,2,3 \
  'CONSOLEHOSTS=127.0.0.1, 10.0.0.0/8' /l*v 'C:\pkg\install.log' || fail "msiexec /i exited with $?"
[ -f "$APP/tdacli.exe" ] || fail "tdacli.exe not installed"
[ -f "$APP/thinterminal.dat" ] && fail "thinterminal.dat installed without USERSESSION=1"
check_service_config
grep -qF 'binary=' <<<"$cfg" && grep -qiF "$WIN_APP\\tdacli.exe" <<<"$cfg" || fail "unexpected binary path"
reg=$(reg_query "$EVENT_KEY") || fail "event source not registered"
grep -qiF "EventMessageFile    REG_SZ    $WIN_APP\\tdacli.exe" <<<"$reg" || fail "event message file: $reg"
grep -q 'TypesSupported.*0x7' <<<"$reg" || fail "event source types: $reg"
reg_query "$UNINSTALL_KEY\\$CODE" >/dev/null || fail "product $CODE not registered"
reg_query "$RUN_KEY" /v TDACLI >/dev/null 2>&1 && fail "Run entry without USERSESSION=1"

step "the service runs with the given settings"
out=$(svctool wait TDACLI 4 60) || fail "service not running: $out"
wait_for 60 trace_says "Running As: WinService" || fail "no start-up banner"
trace=$(program_trace)
grep -qF "TD Server: 127.0.0.1(Port: 5003)" "$trace" || fail "banner lacks the server"
grep -qF "Extension: 4711" "$trace" || fail "banner lacks the extension"
grep -qF "Read TDACLI-AllowedConsoles.TXT: 2 entries, other consoles are refused." "$trace" ||
  fail "the allowed-consoles list was not read"
fresh_settings 4711 127.0.0.1 1,0,2,3 >"$WORK/settings.expected"
cmp "$WORK/settings.expected" "$APP/TDRegInfo.TXT" || fail "TDRegInfo.TXT is not the fresh file"
printf '%s\r\n' "# Consoles allowed on the command port (written at installation)" 127.0.0.1 10.0.0.0/8 \
  >"$WORK/consoles.expected"
cmp "$WORK/consoles.expected" "$APP/TDACLI-AllowedConsoles.TXT" || fail "TDACLI-AllowedConsoles.TXT"

step "upgrade: msiexec /i tdacli-next.msi /qn SERVER=10.9.9.9"
msiexec /i 'C:\pkg\tdacli-next.msi' /qn SERVER=10.9.9.9 /l*v 'C:\pkg\upgrade.log' || fail "upgrade exited with $?"
reg_query "$UNINSTALL_KEY\\$CODE_NEXT" >/dev/null || fail "product $CODE_NEXT not registered"
reg_query "$UNINSTALL_KEY\\$CODE" >/dev/null 2>&1 && fail "the older product $CODE is still registered"
cmp "$WORK/settings.expected" "$APP/TDRegInfo.TXT" || fail "the upgrade changed TDRegInfo.TXT"
cmp "$WORK/consoles.expected" "$APP/TDACLI-AllowedConsoles.TXT" || fail "the upgrade changed the consoles list"
out=$(svctool wait TDACLI 4 60) || fail "service not running after the upgrade: $out"
cfg=$(svctool config TDACLI) || fail "no service after the upgrade"
grep -qxF "start=2" <<<"$cfg" || fail "start type after the upgrade: $cfg"

step "downgrade is refused"
msiexec /i 'C:\pkg\tdacli.msi' /qn /l*v 'C:\pkg\downgrade.log'
rc=$?
# ERROR_INSTALL_FAILURE (1603), as the low 8 bits a Unix exit status keeps.
[ "$rc" -eq $((1603 % 256)) ] || fail "the older package over the newer: exit $rc, expected 1603 (67)"
# Wine's msiexec does not write the launch condition's text into the log (the package's own tables
# are checked for it by Msi.Tables); the log shows the newer product found and the condition failing.
log_text "$PKG/downgrade.log" | grep -qxF "Property(S): WIX_DOWNGRADE_DETECTED = $CODE_NEXT" ||
  fail "the newer product was not detected"
log_text "$PKG/downgrade.log" | grep -qE '^Action ended [0-9:]+: LaunchConditions\. Return value 0\.$' ||
  fail "the launch condition did not stop the installation"
reg_query "$UNINSTALL_KEY\\$CODE_NEXT" >/dev/null || fail "the newer product went away"
reg_query "$UNINSTALL_KEY\\$CODE" >/dev/null 2>&1 && fail "the older product got registered"
out=$(svctool wait TDACLI 4 30) || fail "service not running after the refused downgrade: $out"

step "uninstall: msiexec /x tdacli-next.msi /qn"
msiexec /x 'C:\pkg\tdacli-next.msi' /qn /l*v 'C:\pkg\uninstall.log' || fail "msiexec /x exited with $?"
out=$(svctool installed TDACLI) && fail "service still installed"
grep -qx 'installed=no' <<<"$out" || fail "unexpected answer: $out"
[ -e "$APP/tdacli.exe" ] && fail "tdacli.exe left behind"
reg_query "$EVENT_KEY" >/dev/null 2>&1 && fail "event source still registered"
reg_query "$UNINSTALL_KEY\\$CODE_NEXT" >/dev/null 2>&1 && fail "product still registered"
cmp "$WORK/settings.expected" "$APP/TDRegInfo.TXT" || fail "the uninstall did not leave TDRegInfo.TXT"
cmp "$WORK/consoles.expected" "$APP/TDACLI-AllowedConsoles.TXT" || fail "the uninstall did not leave the list"
[ -f "$trace" ] && grep -qF "*  STOP  *" "$trace" || fail "the uninstall did not leave the trace (stopped)"

step "user-session install into another folder: msiexec /i tdacli-next.msi /qn USERSESSION=1 INSTALLDIR=... EXT=4712"
SESSION_APP="$WINEPREFIX/drive_c/Program Files/Tyndrel/Session Agent"
WIN_SESSION_APP='C:\Program Files\Tyndrel\Session Agent'
msiexec /i 'C:\pkg\tdacli-next.msi' /qn USERSESSION=1 "INSTALLDIR=$WIN_SESSION_APP" EXT=4712 /l*v 'C:\pkg\session.log' ||
  fail "USERSESSION=1 exited with $?"
[ -f "$SESSION_APP/thinterminal.dat" ] || fail "no thinterminal.dat"
[ -s "$SESSION_APP/thinterminal.dat" ] && fail "thinterminal.dat is not empty"
[ -f "$SESSION_APP/tdacli.exe" ] || fail "no tdacli.exe"
run=$(reg_query "$RUN_KEY" /v TDACLI) || fail "no Run entry"
grep -qiF "TDACLI    REG_SZ    \"$WIN_SESSION_APP\\tdacli.exe\"" <<<"$run" || fail "Run entry: $run"
out=$(svctool installed TDACLI) && fail "a service was installed with USERSESSION=1"
reg_query "$EVENT_KEY" >/dev/null 2>&1 && fail "event source registered with USERSESSION=1"
fresh_settings 4712 127.0.0.1 w,x,y,z >"$WORK/session-settings.expected"
cmp "$WORK/session-settings.expected" "$SESSION_APP/TDRegInfo.TXT" || fail "TDRegInfo.TXT of the user-session install"

step "user-session uninstall"
msiexec /x 'C:\pkg\tdacli-next.msi' /qn || fail "msiexec /x exited with $?"
[ -e "$SESSION_APP/thinterminal.dat" ] && fail "thinterminal.dat left behind"
[ -e "$SESSION_APP/tdacli.exe" ] && fail "tdacli.exe left behind"
reg_query "$RUN_KEY" /v TDACLI >/dev/null 2>&1 && fail "Run entry left behind"
cmp "$WORK/session-settings.expected" "$SESSION_APP/TDRegInfo.TXT" || fail "TDRegInfo.TXT removed or changed"

echo "PASS: msi install, upgrade and removal"
exit 0
