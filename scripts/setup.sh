#!/usr/bin/env bash
# Installs what building and testing the agent needs on a Debian machine.
# Idempotent: only missing packages are installed.  As a non-root user it
# prints the exact command to run and fails.
#
#   setup.sh           the normal build and test suite
#   setup.sh --i386    also the 32-bit agent's toolchain (multilib and the
#                      i386 Jansson, for scripts/portable.sh)
set -euo pipefail

PACKAGES=(
  build-essential cmake pkgconf
  libjansson-dev libgtest-dev googletest
  sudo passwd login procps psmisc util-linux mount iproute2 coreutils sed grep
  clang libclang-rt-dev file
)
I386_PACKAGES=(gcc-multilib g++-multilib libjansson-dev:i386)

add_i386=no
if [ "${1:-}" = "--i386" ]; then
  PACKAGES+=("${I386_PACKAGES[@]}")
  if [ "$(dpkg --print-architecture)" != i386 ] &&
     ! dpkg --print-foreign-architectures | grep -qx i386; then
    add_i386=yes
  fi
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ] && [ $add_i386 = no ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]}" >&2
  if [ $add_i386 = yes ]; then
    echo "setup: run as root:  dpkg --add-architecture i386 && apt-get update && apt-get install -y ${missing[*]}" >&2
  else
    echo "setup: run as root:  apt-get update && apt-get install -y ${missing[*]}" >&2
  fi
  exit 1
fi

if [ $add_i386 = yes ]; then
  echo "setup: adding the i386 architecture"
  dpkg --add-architecture i386
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A mirror that is half-way through a sync fails one index; what the other
# indexes hold may still be enough, and apt-get install says when it is not.
apt-get update -qq || echo "setup: apt-get update reported errors, installing anyway" >&2
apt-get install -y -qq --no-install-recommends "${missing[@]}"
