#!/usr/bin/env bash
# Builds the fuzzers (clang, AddressSanitizer + UndefinedBehaviorSanitizer) in build-fuzz
# and runs each for SECONDS (default 60), one after the other. New corpus entries go to
# a temporary directory that is removed afterwards: nothing is merged into fuzz/corpus.
# Prints executions per second and the coverage reached per fuzzer; exits non-zero when
# any fuzzer finds a crash, a leak, a hang (-timeout) or runs out of memory, leaving the
# input in build-fuzz/artifacts/<fuzzer>/ and the log in build-fuzz/<fuzzer>.log.
#
# Usage: tools/run-fuzzers.sh [SECONDS] [FUZZER...]
set -euo pipefail

secs=${1:-60}
shift || true
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD:-$root/build-fuzz}
jobs=${JOBS:-2}
fuzzers=("$@")
[ ${#fuzzers[@]} -eq 0 ] && fuzzers=(fuzz_chunk_load fuzz_clip_query fuzz_mesh_import)

case "$secs" in
  ''|*[!0-9]*) echo "run-fuzzers: SECONDS must be a whole number, got '$secs'" >&2; exit 2 ;;
esac
command -v clang++ >/dev/null || { echo "run-fuzzers: clang++ is needed" >&2; exit 2; }

cmake -S "$root" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMERIDBSP_BUILD_FUZZ=ON -DMERIDBSP_BUILD_TESTS=OFF -DMERIDBSP_BUILD_BENCH=OFF -DMERIDBSP_BUILD_CLI=OFF >/dev/null
cmake --build "$build" --target "${fuzzers[@]}" -j "$jobs"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:halt_on_error=1:allocator_may_return_null=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/fuzz/lsan.supp}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

status=0
printf '%-18s %-6s %12s %10s  %s\n' fuzzer result executions exec/s coverage
for f in "${fuzzers[@]}"; do
  mkdir -p "$work/$f" "$build/artifacts/$f"
  log="$build/$f.log"
  # The first directory receives new inputs; the seed corpus is only read.
  # -close_fd_mask=1 silences the library's standard-output lines.
  if "$build/$f" "$work/$f" "$root/fuzz/corpus/$f" -max_total_time="$secs" -timeout=10 \
       -rss_limit_mb=2048 -max_len=4096 -close_fd_mask=1 -print_final_stats=1 \
       -artifact_prefix="$build/artifacts/$f/" >"$log" 2>&1; then
    result=ok
  else
    result=FAILED
    status=1
  fi
  last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
  cov=$(printf '%s\n' "$last" | grep -oE 'cov: [0-9]+ ft: [0-9]+' || echo 'cov: ? ft: ?')
  execs=$(awk '/stat::number_of_executed_units/ {print $2}' "$log")
  eps=$(awk '/stat::average_exec_per_sec/ {print $2}' "$log")
  printf '%-18s %-6s %12s %10s  %s\n' "$f" "$result" "${execs:-?}" "${eps:-?}" "$cov"
  if [ "$result" != ok ]; then
    echo "---- $f: last lines of $log"
    grep -vE '^#[0-9]+.*(NEW|REDUCE|pulse)' "$log" | tail -60
    echo "---- inputs kept in $build/artifacts/$f/:"
    ls -1 "$build/artifacts/$f/" || true
  fi
done
exit $status
