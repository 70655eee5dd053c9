#!/usr/bin/env bash
# Builds everything and runs every test: Linux (Debug, AddressSanitizer and UndefinedBehaviorSanitizer),
# the Linux release build with the tools and benchmarks, and the Windows build with its tests under
# Wine (including the round trip through Wine's service manager).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh all
jobs="${JOBS:-2}"

echo "== Linux: build and test (sanitizers)"
cmake --preset linux-test
cmake --build build/linux-test -j"$jobs"
ctest --preset linux-test -j"$jobs"

echo "== Linux: release build"
cmake --preset linux
cmake --build build/linux -j"$jobs"
echo "== Linux: every program of build/linux/bin answers --help and refuses a bogus option"
tests/e2e/programs_help.sh --bin build/linux/bin

if [ -x scripts/windows-tests.sh ]; then
  echo "== Windows: cross build and tests under Wine"
  scripts/windows-tests.sh
fi
echo "== All tests passed"
