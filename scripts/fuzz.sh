#!/usr/bin/env bash
# Builds the libFuzzer targets into build-fuzz and fuzzes each one for a
# bounded time on a copy of its seed corpus, with its dictionary from
# fuzz/dict when there is one.  Prints one line per target with its number
# of executions; exits non-zero on any crash, leak, timeout or sanitizer
# report.  Corpora, crash artifacts and logs stay
# under build-fuzz/run/<target>.
#
# Usage: scripts/fuzz.sh [seconds per target] [target...]
#   FUZZ_SECONDS   seconds per target when not given (default 25: all six
#                  take about three minutes)
#   FUZZ_BUILD_DIR build directory (default <repo>/build-fuzz)
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build-fuzz}
seconds=${1:-${FUZZ_SECONDS:-25}}
shift $(( $# > 0 ? 1 : 0 ))
all_targets=(fuzz_receive fuzz_activity_log fuzz_http fuzz_trim_slash fuzz_smbios fuzz_cpuinfo)
if [ $# -gt 0 ]; then
  targets=("$@")
else
  targets=("${all_targets[@]}")
fi

case "$seconds" in
  ''|*[!0-9]*) echo "fuzz: seconds must be a whole number, not '$seconds'" >&2; exit 2 ;;
esac

# Longest input per target: past the line, receive and BIOS-area buffers.
max_len_of() {
  case "$1" in
    fuzz_receive) echo 70000 ;;
    fuzz_http)    echo 9000 ;;
    fuzz_smbios)  echo 70000 ;;
    *)            echo 4096 ;;
  esac
}

CC=${CC:-clang} CXX=${CXX:-clang++} cmake -S "$root" -B "$build" \
  -DKVX_FUZZ=ON -DKVX_BUILD_TESTS=OFF -DKVX_BUILD_TOOLS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || { echo "fuzz: configure failed" >&2; exit 1; }
cmake --build "$build" -j2 --target "${targets[@]}" >"$build/fuzz-build.log" 2>&1 || {
  tail -n 40 "$build/fuzz-build.log" >&2
  echo "fuzz: build failed (full log: $build/fuzz-build.log)" >&2
  exit 1
}

failed=0
printf '%-20s %8s %12s  %s\n' target seconds executions result
for t in "${targets[@]}"; do
  run="$build/run/$t"
  rm -rf "$run"
  mkdir -p "$run/corpus" "$run/artifacts" "$run/tmp"
  if [ ! -d "$root/fuzz/corpus/$t" ]; then
    echo "fuzz: no seed corpus for $t" >&2
    failed=1
    continue
  fi
  cp "$root/fuzz/corpus/$t"/* "$run/corpus/"
  dict=()
  if [ -f "$root/fuzz/dict/$t.dict" ]; then
    dict=(-dict="$root/fuzz/dict/$t.dict")
  fi

  start=$(date +%s)
  (cd "$run" && TMPDIR="$run/tmp" "$build/bin/$t" \
      -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -max_len="$(max_len_of "$t")" -print_final_stats=1 "${dict[@]}" \
      -artifact_prefix="$run/artifacts/" "$run/corpus" >"$run/fuzz.log" 2>&1)
  rc=$?
  took=$(( $(date +%s) - start ))
  execs=$(awk '/^stat::number_of_executed_units:/ { n = $2 } END { print n }' "$run/fuzz.log")
  result=ok
  if [ $rc -ne 0 ] || [ -z "$execs" ] || ls "$run/artifacts" | grep -q . ||
     grep -qE '^==[0-9]+==ERROR|runtime error:|FUZZ CHECK FAILED' "$run/fuzz.log"; then
    result="FAILED (exit $rc)"
    failed=1
  fi
  printf '%-20s %8s %12s  %s\n' "$t" "$took" "${execs:-?}" "$result"
  if [ "$result" != ok ]; then
    grep -E 'ERROR|runtime error|FUZZ CHECK|SUMMARY|artifact' "$run/fuzz.log" | head -n 20 >&2
    echo "fuzz: $t: log $run/fuzz.log, artifacts in $run/artifacts" >&2
  fi
done

if [ $failed -ne 0 ]; then
  echo "fuzz: FAILED" >&2
  exit 1
fi
echo "fuzz: all targets clean"
