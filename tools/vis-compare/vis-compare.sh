#!/usr/bin/env bash
# Compares the visibility pipeline of two source trees on random meshes: builds
# vis_compare.cpp against each tree's library (each tree built in its build/ first) and
# diffs the two outputs, which must be identical. Run by hand; too slow for the suite.
#
# Usage: tools/vis-compare/vis-compare.sh OLD_TREE NEW_TREE [COUNT [SEED]]
#   (400 meshes, both modes, take about two minutes on one core)
# NEW_CXXFLAGS is added to the new side's compile: -DVIS_COMPARE_THREADS=N builds its
# trees on N threads (with VIS_COMPARE_TINY=1 in the environment, every node takes every
# parallel step).
set -euo pipefail
old=$(cd "$1" && pwd)
new=$(cd "$2" && pwd)
count=${3:-400}
seed=${4:-7}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for side in old new; do
  tree=${!side}
  flags=
  [ "$side" = new ] && flags=${NEW_CXXFLAGS:-}
  # shellcheck disable=SC2086
  g++ -O2 -std=c++17 -ffp-contract=off $flags -I"$tree/build/include" -I"$tree/bench" "$here/vis_compare.cpp" \
    "$tree/bench/BenchMesh.cpp" -L"$tree/build/lib" -Wl,-rpath,"$tree/build/lib" -lMeridBSP -lmerid_platform \
    -o "$work/$side"
  "$work/$side" "$count" "$seed" > "$work/$side.txt"
done
if cmp -s "$work/old.txt" "$work/new.txt"; then
  echo "identical: $(wc -l < "$work/new.txt") runs"
else
  diff "$work/old.txt" "$work/new.txt" | head -20
  exit 1
fi
