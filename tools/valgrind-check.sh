#!/usr/bin/env bash
# memcheck run of `meridbsp demo` and of the test executables with small cases.
# Clean means: no invalid reads or writes, no uses of uninitialised values, no invalid
# frees and no definite leaks (still-reachable memory, such as the engine registry that
# lives for the whole process, is not counted). Prints one line per program; exits
# non-zero when any program is not clean, and keeps its log in OUT/<program>.log.
#
# Usage: tools/valgrind-check.sh [--build DIR] [--out DIR] [TEST...]
#   DIR defaults to build (made with `make build` when missing). TEST names test
#   executables of that directory (default: every *_test except the command-line and
#   determinism suites, which run the tool as a child or build large meshes).
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build"
out=""
tests=()
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
    *) tests+=("$1"); shift ;;
  esac
done
command -v valgrind >/dev/null || { echo "valgrind-check: valgrind is needed (apt-get install valgrind)" >&2; exit 2; }
if [ ! -x "$build/meridbsp" ]; then
  [ "$build" = "$root/build" ] || { echo "valgrind-check: $build/meridbsp not found" >&2; exit 2; }
  make -C "$root" build >/dev/null || exit 2
fi
if [ -z "$out" ]; then
  out="$build/valgrind"
fi
mkdir -p "$out"
if [ ${#tests[@]} -eq 0 ]; then
  for t in "$build"/*_test; do
    name=$(basename "$t")
    case "$name" in
      cli_test|*determinism_test) continue ;;
    esac
    tests+=("$name")
  done
fi

vg=(valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite
    --track-origins=yes --error-exitcode=99 --num-callers=30)

status=0
printf '%-22s %-7s %8s %16s %10s\n' program result errors "definitely lost" time
check() {
  local name=$1; shift
  local log="$out/$name.log"
  local start end rc
  start=$(date +%s)
  "${vg[@]}" --log-file="$log" "$@" >"$out/$name.out" 2>&1
  rc=$?
  end=$(date +%s)
  local errors lost result
  errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9]*\) errors.*/\1/p' "$log" | tail -1)
  lost=$(sed -n 's/.*definitely lost: \([0-9,]*\) bytes.*/\1/p' "$log" | tail -1)
  result=clean
  if [ "$rc" -ne 0 ] || [ "${errors:-1}" != 0 ]; then
    result=DIRTY
    status=1
  fi
  printf '%-22s %-7s %8s %16s %9ss\n' "$name" "$result" "${errors:-?}" "${lost:-0} bytes" "$((end - start))"
  if [ "$result" != clean ]; then
    [ "$rc" -ne 0 ] && [ "$rc" -ne 99 ] && echo "    exit status $rc; output in $out/$name.out"
    grep -E "Invalid|uninitialised|definitely lost in|Mismatched|free\(\)" "$log" | head -5 | sed 's/^/    /'
    echo "    full report: $log"
  fi
}

demo_dir=$(mktemp -d)
trap 'rm -rf "$demo_dir"' EXIT
check meridbsp-demo "$build/meridbsp" demo --out "$demo_dir/demo-out"
for t in "${tests[@]}"; do
  [ -x "$build/$t" ] || { echo "valgrind-check: $build/$t not found" >&2; status=1; continue; }
  check "$t" "$build/$t"
done
exit $status
