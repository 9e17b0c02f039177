#!/usr/bin/env bash
# Builds the agent and runs the whole suite:
#   1. normal build: every test, slow ones included;
#   2. fuzzing: each libFuzzer target for a bounded time (scripts/fuzz.sh);
#   3. the agents of the other CPUs (scripts/portable.sh): the integration
#      suite again against the static i386 agent, the protocol tests against
#      those of aarch64, ppc64le and s390x under qemu-user-static;
#   4. AddressSanitizer/UBSan build: every test but those labelled "slow".
# Exits non-zero when any step fails; the last lines are CTest's summary.
set -uo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh || exit 1

jobs=$(nproc 2>/dev/null || echo 2)
status=0
step() { echo; echo "==== $* ($(date +%T))"; }

step "normal build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || exit 1
cmake --build build -j"$jobs" >/dev/null || { cmake --build build -j1 2>&1 | tail -40; exit 1; }
step "tests, normal build"
(cd build && ctest --output-on-failure -j"$jobs") || status=1

if [ -f scripts/fuzz.sh ]; then
  step "fuzzing"
  bash scripts/fuzz.sh || status=1
fi
if [ -f scripts/portable.sh ]; then
  step "agents of the other CPUs"
  bash scripts/portable.sh || status=1
fi

step "sanitizer build"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKVX_SANITIZE=ON >/dev/null || exit 1
cmake --build build-asan -j"$jobs" >/dev/null || { cmake --build build-asan -j1 2>&1 | tail -40; exit 1; }
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:exitcode=86
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
step "tests, sanitizer build (slow cases left out)"
(cd build-asan && ctest --output-on-failure -j"$jobs" -LE slow) || status=1

exit $status
