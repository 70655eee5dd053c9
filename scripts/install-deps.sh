#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, if any are missing (the web console's
# browser tests use Chromium, its driver and Selenium).
#   scripts/install-deps.sh [linux|windows|fuzz|all]   (default: all)
set -euo pipefail
what="${1:-all}"
linux=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev libcurl4-openssl-dev nlohmann-json3-dev
  libcpp-httplib-dev libssl-dev openssl strace chromium chromium-driver python3-selenium)
windows=(g++-mingw-w64-x86-64 wine64 msitools wixl)
fuzz=(clang libclang-rt-dev)
case "$what" in
  linux) pkgs=("${linux[@]}") ;;
  windows) pkgs=("${linux[@]}" "${windows[@]}") ;;
  fuzz) pkgs=("${linux[@]}" "${fuzz[@]}") ;;
  all) pkgs=("${linux[@]}" "${windows[@]}" "${fuzz[@]}") ;;
  *) echo "usage: $0 [linux|windows|fuzz|all]" >&2; exit 2 ;;
esac
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then exit 0; fi
echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
$SUDO apt-get update -q
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
