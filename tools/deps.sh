#!/usr/bin/env bash
# Installs the Debian packages zelm needs to build, test and benchmark, if any
# is missing. Needs root (or sudo).
set -euo pipefail
pkgs=(g++ cmake make python3 binutils ccache libgtest-dev libbenchmark-dev libeigen3-dev liblapacke-dev libomp-14-dev
      libglm-dev pkg-config dpkg-dev)
exec "$(dirname "$0")/apt-ensure.sh" "${pkgs[@]}"
