#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing. Quiet when all are there.
#   --test   also Chromium, which the tests use to open the view pages headless, and GNU parallel
#            and rsync, with which they run the batch recipes of docs/batch.md; where these cannot
#            be installed the tests that need them are skipped, so their failure is not fatal
#   --bench  also the benchmarks' peer libraries
set -euo pipefail
pkgs=(build-essential cmake clang clang-format libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev
      libassimp-dev libcli11-dev nlohmann-json3-dev libstb-dev help2man libjs-three libtbb-dev)
optional=()
[ "${1:-}" = "--test" ] && optional+=(chromium parallel rsync)
[ "${1:-}" = "--bench" ] && pkgs+=(libembree-dev libbullet-dev python3)
missing() {
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
  done
}
required=($(missing "${pkgs[@]}"))
wanted=($(missing "${optional[@]}"))
[ ${#required[@]} -eq 0 ] && [ ${#wanted[@]} -eq 0 ] && exit 0
SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq || [ ${#required[@]} -eq 0 ]
if [ ${#required[@]} -gt 0 ]; then
  echo "Installing: ${required[*]}"
  $SUDO apt-get install -y -qq "${required[@]}" >/dev/null
fi
if [ ${#wanted[@]} -gt 0 ]; then
  echo "Installing: ${wanted[*]}"
  $SUDO apt-get install -y -qq "${wanted[@]}" >/dev/null ||
    echo "Could not install ${wanted[*]}: the tests that need it will be skipped"
fi
