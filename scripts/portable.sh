#!/usr/bin/env bash
# Builds the statically linked i386 agent, copies it to build/bin/kvx_ea-i386
# and runs the integration suite (the test programs labelled "integration",
# which drive the agent named by KVX_EA_BINARY) against it.
#
#   scripts/portable.sh [BUILD_DIR]
#
# BUILD_DIR (default build) must hold a normal build of everything, as
# scripts/test.sh leaves it; it also holds the static x86-64 agent
# kvx_ea-static, which the suite's test_portable checks beside the i386 one.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
case "$build" in
  /*) ;;
  *) build="$PWD/$build" ;;
esac

bash scripts/setup.sh --i386

if [ ! -x "$build/bin/kvx_ea" ] || [ ! -f "$build/CTestTestfile.cmake" ]; then
  echo "portable: $build is not a normal build; run scripts/test.sh (or cmake -S . -B $build && cmake --build $build) first" >&2
  exit 1
fi

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVX_STATIC_AGENT=ON \
  -DKVX_BUILD_TESTS=OFF -DKVX_BUILD_TOOLS=OFF -DKVX_BUILD_BENCH=OFF >/dev/null
cmake --build build-i386 -j"$jobs" --target kvx_ea
cp build-i386/bin/kvx_ea "$build/bin/kvx_ea-i386.tmp"
mv -f "$build/bin/kvx_ea-i386.tmp" "$build/bin/kvx_ea-i386"

KVX_EA_BINARY="$build/bin/kvx_ea-i386" \
  ctest --test-dir "$build" -L integration --output-on-failure -j2
