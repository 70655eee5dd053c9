#!/bin/bash
# The built Windows Installer package, read back with msiinfo (msitools) on the build machine: the
# tables a per-machine install of the service needs exist and hold the expected rows.
#
#   msi_tables.sh --msi <package> --version <ProductVersion> --code <ProductCode>
set -u
MSI= VERSION= CODE=
while [ $# -gt 0 ]; do
  case "$1" in
    --msi) MSI=$2; shift 2 ;;
    --version) VERSION=$2; shift 2 ;;
    --code) CODE=$2; shift 2 ;;
    *) echo "unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -f "$MSI" ] && [ -n "$VERSION" ] && [ -n "$CODE" ] || { echo "missing arguments" >&2; exit 2; }

failed=0
fail() { echo "FAIL: $*"; failed=1; }
rows() { msiinfo export "$MSI" "$1" 2>&1 | tail -n +4 | tr -d '\r'; }
# Each expected row (tab-separated) must be in the table.
expect_rows() {
  local table=$1 have row
  shift
  have=$(rows "$table")
  for row in "$@"; do
    grep -qxF -- "$row" <<<"$have" || fail "$table lacks the row: $(tr '\t' '|' <<<"$row")"
  done
}
expect_count() {
  local n
  n=$(rows "$1" | grep -c .)
  [ "$n" -eq "$2" ] || fail "$1 has $n rows, expected $2"
}
T=$'\t'

tables=$(msiinfo tables "$MSI") || { echo "FAIL: msiinfo cannot read $MSI"; exit 1; }
for t in Property Directory Component File Feature FeatureComponents Media ServiceInstall ServiceControl Registry \
         AppSearch RegLocator CustomAction InstallExecuteSequence InstallUISequence Upgrade LaunchCondition; do
  grep -qx "$t" <<<"$tables" || fail "no $t table"
done

suminfo=$(msiinfo suminfo "$MSI")
grep -qx 'Template: x64;1033' <<<"$suminfo" || fail "not a 64-bit package: $suminfo"

expect_rows Property "ALLUSERS${T}1" "Manufacturer${T}Tyndrel" "ProductName${T}TD - Agent Client Login Service" \
  "ProductVersion${T}$VERSION" "ProductCode${T}{$CODE}" "UpgradeCode${T}{9358C8D0-C203-4A83-9485-90AEE4792EC7}" \
  "ARPNOMODIFY${T}1"

expect_rows Directory "INSTALLDIR${T}TyndrelFolder${T}Agent Client" "TyndrelFolder${T}ProgramFiles64Folder${T}Tyndrel"

# Both components are 64-bit (256) and keyed on their copy of the executable.
have=$(rows Component)
grep -qE "^ServiceProgram${T}\{[0-9A-F-]{36}\}${T}INSTALLDIR${T}256${T}${T}tdacli\.exe$" <<<"$have" ||
  fail "Component ServiceProgram: $have"
grep -qE "^SessionProgram${T}\{[0-9A-F-]{36}\}${T}INSTALLDIR${T}256${T}${T}tdacli\.session\.exe$" <<<"$have" ||
  fail "Component SessionProgram: $have"
grep -qxF "RememberInstallDir${T}{BFA49765-EBB6-445E-A44A-66B41822B74D}${T}INSTALLDIR${T}260${T}${T}$(rows Registry | awk -F'\t' '$4 == "InstallDir" { print $1 }')" <<<"$have" ||
  fail "Component RememberInstallDir: $have"
expect_count Component 3

have=$(rows File)
grep -qE "^tdacli\.exe${T}ServiceProgram${T}tdacli\.exe${T}[1-9][0-9]*${T}" <<<"$have" || fail "File tdacli.exe: $have"
grep -qE "^tdacli\.session\.exe${T}SessionProgram${T}tdacli\.exe${T}[1-9][0-9]*${T}" <<<"$have" ||
  fail "File tdacli.session.exe: $have"
grep -qE "^thinterminal\.dat${T}SessionProgram${T}thinterminal\.dat${T}0${T}" <<<"$have" ||
  fail "File thinterminal.dat: $have"
expect_count File 3

expect_rows Feature "Service${T}${T}Agent Client Login Service${T}${T}2${T}1${T}${T}0" \
  "UserSession${T}${T}Agent Client Login in user sessions${T}${T}2${T}1000${T}${T}0"
expect_rows FeatureComponents "Service${T}ServiceProgram" "UserSession${T}SessionProgram" \
  "Service${T}RememberInstallDir" "UserSession${T}RememberInstallDir"

# Own process (16), automatic start (2), normal error control (1), local system account (empty).
expect_rows ServiceInstall \
  "TDACLI${T}TDACLI${T}TD - Agent Client Login Service${T}16${T}2${T}1${T}${T}lanmanworkstation[~][~]${T}${T}${T}${T}ServiceProgram${T}Tyndrel Agent Client Login Service"
expect_count ServiceInstall 1
# Started at install (1), stopped at install and uninstall (2 + 32), removed at uninstall (128); waited for.
expect_rows ServiceControl "TDACLI${T}TDACLI${T}163${T}${T}1${T}ServiceProgram"

have=$(rows Registry)
grep -qE "^reg[0-9A-F]+${T}2${T}SYSTEM\\\\CurrentControlSet\\\\Services\\\\EventLog\\\\Application\\\\TDACLI\\\\${T}EventMessageFile${T}\[#tdacli\.exe\]${T}ServiceProgram$" <<<"$have" ||
  fail "Registry EventMessageFile: $have"
grep -qE "^reg[0-9A-F]+${T}2${T}SYSTEM\\\\CurrentControlSet\\\\Services\\\\EventLog\\\\Application\\\\TDACLI\\\\${T}TypesSupported${T}#7${T}ServiceProgram$" <<<"$have" ||
  fail "Registry TypesSupported: $have"
grep -qE "^reg[0-9A-F]+${T}2${T}Software\\\\Microsoft\\\\Windows\\\\CurrentVersion\\\\Run${T}TDACLI${T}\"\[#tdacli\.session\.exe\]\"${T}SessionProgram$" <<<"$have" ||
  fail "Registry Run: $have"
grep -qE "^reg[0-9A-F]+${T}2${T}Software\\\\Tyndrel\\\\Agent Client Login Service${T}InstallDir${T}\[INSTALLDIR\]${T}RememberInstallDir$" <<<"$have" ||
  fail "Registry InstallDir: $have"
expect_count Registry 4
# The folder chosen at installation is found again by a removal or an upgrade.
expect_rows AppSearch "INSTALLDIR${T}RememberedInstallDir"
expect_rows RegLocator "RememberedInstallDir${T}2${T}Software\\Tyndrel\\Agent Client Login Service${T}InstallDir${T}18"

preset='/msi-preset "SERVER=[SERVER]" "EXT=[EXT]" "LISTENINGPORTS=[LISTENINGPORTS]" "NOTIFICATIONMETHOD=[NOTIFICATIONMETHOD]" "CONSOLEHOSTS=[CONSOLEHOSTS]"'
# 3090: an installed executable (18), deferred (1024), as the local system (2048); 51: sets a property.
expect_rows CustomAction "WritePresetFiles${T}3090${T}tdacli.exe${T}${preset}${T}" \
  "WritePresetFilesSession${T}3090${T}tdacli.session.exe${T}${preset}${T}" \
  "ChooseUserSession${T}51${T}ADDLOCAL${T}UserSession${T}"

seq=$(rows InstallExecuteSequence)
at() { awk -F'\t' -v a="$1" '$1 == a { print $3 }' <<<"$seq"; }
for a in ChooseUserSession CostInitialize InstallFiles WritePresetFiles WritePresetFilesSession InstallServices \
         StartServices StopServices DeleteServices RemoveExistingProducts FindRelatedProducts LaunchConditions \
         AppSearch InstallValidate InstallInitialize; do
  [ -n "$(at "$a")" ] || fail "InstallExecuteSequence lacks $a"
done
if [ "$failed" -eq 0 ]; then
  [ "$(at ChooseUserSession)" -lt "$(at CostInitialize)" ] || fail "ChooseUserSession after CostInitialize"
  [ "$(at AppSearch)" -lt "$(at CostInitialize)" ] || fail "AppSearch after CostInitialize"
  # The older version is removed whole before anything of this one is installed.
  [ "$(at InstallValidate)" -lt "$(at RemoveExistingProducts)" ] &&
    [ "$(at RemoveExistingProducts)" -lt "$(at InstallInitialize)" ] ||
    fail "RemoveExistingProducts not between InstallValidate and InstallInitialize"
  [ "$(at InstallFiles)" -lt "$(at WritePresetFiles)" ] || fail "preset files before InstallFiles"
  [ "$(at WritePresetFilesSession)" -lt "$(at StartServices)" ] && [ "$(at WritePresetFiles)" -lt "$(at StartServices)" ] ||
    fail "preset files after StartServices"
fi
expect_rows InstallExecuteSequence \
  "WritePresetFiles${T}(&Service = 3) AND (SERVER OR EXT OR LISTENINGPORTS OR NOTIFICATIONMETHOD OR CONSOLEHOSTS)${T}$(at WritePresetFiles)" \
  "WritePresetFilesSession${T}(&UserSession = 3) AND (SERVER OR EXT OR LISTENINGPORTS OR NOTIFICATIONMETHOD OR CONSOLEHOSTS)${T}$(at WritePresetFilesSession)" \
  "ChooseUserSession${T}USERSESSION = \"1\" AND NOT Installed${T}$(at ChooseUserSession)"
ui=$(rows InstallUISequence)
grep -qF "ChooseUserSession${T}USERSESSION = \"1\" AND NOT Installed${T}" <<<"$ui" || fail "InstallUISequence lacks ChooseUserSession"

# Older versions are upgraded, newer ones detected and refused.
expect_rows Upgrade "{9358C8D0-C203-4A83-9485-90AEE4792EC7}${T}${T}${VERSION}${T}${T}1${T}${T}WIX_UPGRADE_DETECTED" \
  "{9358C8D0-C203-4A83-9485-90AEE4792EC7}${T}${VERSION}${T}${T}${T}2${T}${T}WIX_DOWNGRADE_DETECTED"
expect_rows LaunchCondition \
  "NOT WIX_DOWNGRADE_DETECTED${T}A newer version of the Tyndrel Agent Client Login Service is already installed. Remove it first to install this older version."

# The executable inside is the build's own.
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
msiextract -C "$dir/out" "$MSI" >/dev/null 2>&1 || fail "msiextract cannot unpack the package"
exe=$(find "$dir/out" -name tdacli.exe | head -n 1)
[ -n "$exe" ] && [ "$(head -c 2 "$exe")" = "MZ" ] || fail "no Windows executable in the package"

[ "$failed" -eq 0 ] || exit 1
echo "PASS: msi tables"
