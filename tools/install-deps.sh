#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing. Quiet when all are there.
set -euo pipefail
pkgs=(build-essential cmake clang clang-format libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev
      libassimp-dev libcli11-dev nlohmann-json3-dev libstb-dev help2man)
[ "${1:-}" = "--bench" ] && pkgs+=(libembree-dev libbullet-dev python3)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing: ${missing[*]}"
SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
