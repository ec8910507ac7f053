#!/usr/bin/env bash
# Rewrites the pinned results under tests/data/ from a built tree, for a change of results
# that is meant: each table keeps its comment lines and gets the values the build gives now.
# Read the diff before committing it. Usage: tools/regen-goldens.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

# regen FILE TEST_BINARY GTEST_FILTER [LAYOUT]: the test prints each pinned line as "pin: LINE";
# LAYOUT (a command) lines the values up.
regen() {
  local file=tests/data/$1 pins
  pins=$(MERIDBSP_PRINT_PINS=1 "$build/$2" --gtest_filter="$3" 2>/dev/null | sed -n 's/^pin: //p' | ${4:-cat})
  [ -n "$pins" ] || { echo "$2 printed no pins" >&2; exit 1; }
  { grep '^#' "$file"; printf '%s\n' "$pins"; } > "$file.new"
  mv "$file.new" "$file"
  echo "rewrote $file ($(printf '%s\n' "$pins" | wc -l) lines)"
}

regen vis_pins.txt determinism_test 'VisibilityPipeline/PinnedResults.*'
regen collision_pins.txt collision_determinism_test 'CollisionPipeline.PinnedMeshesGiveTheSameTreeFileAndAnswers' 'column -t'
