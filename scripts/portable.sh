#!/usr/bin/env bash
# Builds the statically linked agents of the CPUs in scripts/arches.txt with
# Debian's cross compilers (cmake/cross.cmake), one build directory
# build-<agent> each that CMake reuses, copies them to BUILD_DIR/bin as
# kvx_ea-<agent> (with their simulated backup programs as
# kvxbackupvol-sim-<agent>) and runs the tests of the row's label against
# each (KVX_EA_BINARY): the integration suite but its slow cases natively
# for i386 (those wait out time limits, the same on every CPU), the
# protocol subset under qemu-user-static for the others (KVX_EA_EMULATOR,
# with their own simulated backup program: KVX_SIM_BINARY), and for those
# also the test programs of the row's own label built for that CPU.
#
#   scripts/portable.sh [BUILD_DIR [AGENT...]]
#
# BUILD_DIR (default build) must hold a normal build of everything, as
# scripts/test.sh leaves it; it also holds the static x86-64 agent
# kvx_ea-static, which the suite's test_portable checks beside the others.
# AGENT... limits the run to those rows (default: all).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
shift || true
case "$build" in
  /*) ;;
  *) build="$PWD/$build" ;;
esac

bash scripts/setup.sh --i386 --cross

if [ ! -x "$build/bin/kvx_ea" ] || [ ! -f "$build/CTestTestfile.cmake" ]; then
  echo "portable: $build is not a normal build; run scripts/test.sh (or cmake -S . -B $build && cmake --build $build) first" >&2
  exit 1
fi

jobs=$(nproc 2>/dev/null || echo 2)
rows=()
while read -r agent arch triplet tests own; do
  case "$agent" in ''|'#'*) continue ;; esac
  if [ $# -eq 0 ] || printf '%s\n' "$@" | grep -qx "$agent"; then
    rows+=("$agent $triplet $tests $own")
  fi
done < scripts/arches.txt

# $1: agent, $2: its tests; the emulator's path, empty when it runs natively.
emulator_of() {
  if [ "$2" != integration ]; then command -v "qemu-$1-static"; fi
}

# Every agent first: the integration suite's test_portable checks all that
# are there.
declare -A built
for row in "${rows[@]}"; do
  read -r agent triplet tests own <<<"$row"
  dir="build-$agent"
  # A directory configured for another compiler (or by an older script)
  # starts afresh.
  if [ -f "$dir/CMakeCache.txt" ] &&
     ! grep -qx "KVX_CROSS_TRIPLET:[A-Z]*=$triplet" "$dir/CMakeCache.txt"; then
    rm -rf "$dir"
  fi
  echo "portable: $agent: building in $dir"
  start=$SECONDS
  # The tools directory only for the simulated backup program; the tests
  # only for the programs of the row's own label, run through the emulator.
  targets=(kvx_ea kvxbackupvol-sim)
  options=(-DKVX_BUILD_TESTS=OFF)
  if [ "$own" != - ]; then
    targets+=("tests-$own")
    options=(-DKVX_BUILD_TESTS=ON -DCMAKE_CROSSCOMPILING_EMULATOR="$(emulator_of "$agent" "$tests")")
  fi
  # The linker's warnings about getaddrinfo in static programs stay in the log.
  mkdir -p "$dir"
  if ! { cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE=cmake/cross.cmake -DKVX_CROSS_TRIPLET="$triplet" \
           -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVX_STATIC_AGENT=ON "${options[@]}" \
           -DKVX_BUILD_TOOLS=ON -DKVX_BUILD_BENCH=OFF &&
         cmake --build "$dir" -j"$jobs" --target "${targets[@]}"; } >"$dir/portable.log" 2>&1; then
    tail -40 "$dir/portable.log" >&2
    echo "portable: $agent: the build failed; $dir/portable.log has it all" >&2
    exit 1
  fi
  # The copies are stripped here: the build machine's strip reads only its
  # own CPU's programs (scripts/package.sh strips those).
  "$triplet-strip" --strip-unneeded -o "$build/bin/kvx_ea-$agent.tmp" "$dir/bin/kvx_ea"
  mv -f "$build/bin/kvx_ea-$agent.tmp" "$build/bin/kvx_ea-$agent"
  "$triplet-strip" --strip-unneeded -o "$build/bin/kvxbackupvol-sim-$agent" "$dir/bin/kvxbackupvol-sim"
  built[$agent]=$((SECONDS - start))
done

# Each run in a System V IPC namespace of its own where it may: the job
# monitor's key is fixed, and on a shared machine another run's simulated
# backup program would otherwise publish into the segment that ours reads.
ipc=()
if unshare --ipc true 2>/dev/null; then
  ipc=(unshare --ipc)
fi
status=0
summary=()
for row in "${rows[@]}"; do
  read -r agent triplet tests own <<<"$row"
  emulator=$(emulator_of "$agent" "$tests")
  # The i386 agent reads the monitor written by the 64-bit simulated backup
  # program (the packed layout); another CPU's agent that of its own CPU.
  sim=
  if [ -n "$emulator" ]; then
    sim="$build/bin/kvxbackupvol-sim-$agent"
  fi
  echo "portable: $agent: tests labelled $tests${emulator:+ under $emulator}"
  start=$SECONDS
  result=passed
  KVX_EA_BINARY="$build/bin/kvx_ea-$agent" KVX_SIM_BINARY="$sim" KVX_EA_EMULATOR="$emulator" \
    ${ipc[@]+"${ipc[@]}"} ctest --test-dir "$build" -L "^$tests\$" -LE '^slow$' --output-on-failure -j2 ||
    { result=FAILED; status=1; }
  line=$(printf 'portable: %-8s build %4d s, %-11s %4d s: %s' \
           "$agent" "${built[$agent]}" "$tests" $((SECONDS - start)) "$result")
  if [ "$own" != - ]; then
    echo "portable: $agent: its own tests labelled $own under $emulator"
    start=$SECONDS
    result=passed
    ${ipc[@]+"${ipc[@]}"} ctest --test-dir "build-$agent" -L "^$own\$" --output-on-failure -j2 ||
      { result=FAILED; status=1; }
    line+=$(printf ', %s %4d s: %s' "$own" $((SECONDS - start)) "$result")
  fi
  summary+=("$line")
done

printf '%s\n' "${summary[@]}"
exit $status
