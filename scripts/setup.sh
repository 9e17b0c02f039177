#!/usr/bin/env bash
# Installs what building and testing the agent needs on a Debian machine.
# Idempotent: only missing packages are installed.  As a non-root user it
# prints the exact command to run and fails.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkgconf
  libjansson-dev libgtest-dev googletest
  sudo passwd login procps psmisc util-linux mount iproute2 coreutils sed grep
  clang libclang-rt-dev file
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]}" >&2
  echo "setup: run as root:  apt-get update && apt-get install -y ${missing[*]}" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
