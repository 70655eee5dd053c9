#!/bin/bash
# Builds the small PE images the version-resource tests read, with the mingw-w64 binutils and lld:
# resource-only DLLs (64- and 32-bit) and executables, each with a known version resource or a known
# defect. The images are kept in the source tree, so the Linux tests need no cross compiler; run this
# again only to change them.
set -euo pipefail
cd "$(dirname "$0")"
WINDRES=x86_64-w64-mingw32-windres
LD=x86_64-w64-mingw32-ld
CC=x86_64-w64-mingw32-gcc
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# version LANG CP FILEVERSION-TEXT [KEYS...]: a VS_VERSION_INFO with the given string keys (KEY=VALUE).
version_rc() {
  local lang=$1 cp=$2 table=$3 fv=$4
  shift 4
  cat <<RC
#include <winver.h>
1 VERSIONINFO
FILEVERSION 1,2,3,4
PRODUCTVERSION 1,2,3,4
FILEFLAGSMASK 0x3fL
FILEFLAGS 0x0L
FILEOS VOS_NT_WINDOWS32
FILETYPE VFT_DLL
FILESUBTYPE 0x0L
BEGIN
  BLOCK "StringFileInfo"
  BEGIN
    BLOCK "$table"
    BEGIN
      VALUE "FileVersion", "$fv\\0"
RC
  for kv in "$@"; do
    echo "      VALUE \"${kv%%=*}\", \"${kv#*=}\\0\""
  done
  cat <<RC
    END
  END
RC
  if [ "$lang" != none ]; then
    cat <<RC
  BLOCK "VarFileInfo"
  BEGIN
    VALUE "Translation", $lang, $cp
  END
RC
  fi
  echo "END"
}

dll64() {  # name rc-file
  $WINDRES -F pe-x86-64 "$2" -o "$tmp/$1.o"
  $LD -m i386pep --dll -e 0 -s -o "$1" "$tmp/$1.o"
}
dll32() {  # the 32-bit image is linked by lld-link (the mingw-w64 binutils here are 64-bit only)
  $WINDRES -O res "$2" -o "$tmp/$1.res"
  lld-link /dll /noentry /noimplib /machine:x86 /nodefaultlib /out:"$1" "$tmp/$1.res" >/dev/null
}

ALL=(CompanyName="Tyndrel Systems" FileDescription="Agent Client Test Component" InternalName=TDTEST
     LegalCopyright="Copyright (C) 2026 Tyndrel" OriginalFilename=TDTEST.EXE ProductName="Tyndrel Agent Client"
     ProductVersion="3, 0, 0, 7")

version_rc 0x409 1200 040904B0 "3, 0, 0, 7" "${ALL[@]}" >"$tmp/full.rc"
dll64 full64.dll "$tmp/full.rc"
dll32 full32.dll "$tmp/full.rc"

version_rc 0x407 1252 040704E4 "1.2.3.4" CompanyName="Tyndrel GmbH" ProductName="Agent Client" >"$tmp/german.rc"
dll64 german64.dll "$tmp/german.rc"

# The translation names a table that is not there: every string is empty, the resource still counts.
version_rc 0x409 1252 040904B0 "9, 9, 9, 9" >"$tmp/mismatch.rc"
dll64 mismatch64.dll "$tmp/mismatch.rc"

# No translation at all.
version_rc none 0 040904B0 "5, 5, 5, 5" >"$tmp/notrans.rc"
dll64 notrans64.dll "$tmp/notrans.rc"

# An executable with code, a version resource and other resources beside it.
cat >"$tmp/main.c" <<'C'
int main(void) { return 0; }
C
version_rc 0x409 1200 040904B0 "2, 1, 0, 15" "${ALL[@]}" >"$tmp/exe.rc"
echo '2 RCDATA { "some other resource" }' >>"$tmp/exe.rc"
$WINDRES -F pe-x86-64 "$tmp/exe.rc" -o "$tmp/exe.o"
$CC -s -o prog64.exe "$tmp/main.c" "$tmp/exe.o"

# An executable without any version resource.
$CC -s -o nover64.exe "$tmp/main.c"
ls -l
