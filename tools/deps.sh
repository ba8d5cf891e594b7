#!/usr/bin/env bash
# Installs the Debian packages zelm needs to build, test and benchmark, if any
# is missing. Needs root (or sudo).
set -euo pipefail
pkgs=(g++ cmake make python3 binutils ccache libgtest-dev libbenchmark-dev libeigen3-dev liblapacke-dev libomp-14-dev
      libglm-dev pkg-config dpkg-dev)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
