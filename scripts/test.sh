#!/usr/bin/env bash
# Builds the agent and runs the whole suite twice: a normal build and one with
# AddressSanitizer and UndefinedBehaviorSanitizer (cases labelled "slow" are
# left out of the sanitizer pass).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)
status=0

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs") || status=1

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKVX_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:exitcode=86
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --output-on-failure -j"$jobs" -LE slow) || status=1

exit $status
