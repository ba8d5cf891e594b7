#!/usr/bin/env bash
# Installs the given Debian packages (name or name:arch) where missing.
# --i386 first adds the i386 architecture to dpkg. Needs root (or sudo).
set -euo pipefail
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
updated=0
if [ "${1:-}" = "--i386" ]; then
  shift
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    $SUDO dpkg --add-architecture i386
    # a mirror that is still syncing one index must not stop us: a package
    # that can't be found fails the install below
    $SUDO apt-get update -qq || true
    updated=1
  fi
fi
missing=()
for p in "$@"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  [ $updated -eq 1 ] || $SUDO apt-get update -qq || true
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
