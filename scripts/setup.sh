#!/usr/bin/env bash
# Installs what building and testing the agent needs on a Debian machine.
# Idempotent: only missing packages are installed.  As a non-root user it
# prints the exact command to run and fails.
#
#   setup.sh           the normal build and test suite (ansible-core for the
#                      client's inventories, lintian for the package, pdsh and
#                      clustershell for the client's benchmark and output tests)
#   setup.sh --i386    also the 32-bit agent's toolchain (multilib and the
#                      i386 Jansson, for scripts/portable.sh)
set -euo pipefail

PACKAGES=(
  build-essential cmake pkgconf
  libjansson-dev libgtest-dev googletest
  sudo passwd login procps psmisc util-linux mount iproute2 coreutils sed grep locales
  clang libclang-rt-dev file
  openssh-client openssh-server man-db dpkg-dev python3
  ansible-core lintian pdsh clustershell
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
# The tests start sshd themselves, on a port of their own.  A system sshd that
# this script installs is never started (policy-rc.d answers 101 during the
# installation, sshd_not_to_be_run keeps it from starting later) and is left
# disabled.
new_sshd=no
case " ${missing[*]} " in *" openssh-server "*) new_sshd=yes ;; esac
if [ $new_sshd = yes ]; then
  mkdir -p /etc/ssh
  touch /etc/ssh/sshd_not_to_be_run
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
    chmod 755 /usr/sbin/policy-rc.d
    trap 'rm -f /usr/sbin/policy-rc.d' EXIT
  fi
fi
# A mirror that is half-way through a sync fails one index; what the other
# indexes hold may still be enough, and apt-get install says when it is not.
apt-get update -qq || echo "setup: apt-get update reported errors, installing anyway" >&2
apt-get install -y -qq --no-install-recommends "${missing[@]}"
if [ $new_sshd = yes ]; then
  if command -v deb-systemd-helper >/dev/null; then
    deb-systemd-helper disable ssh.service ssh.socket >/dev/null 2>&1 || true
  fi
  if command -v update-rc.d >/dev/null; then
    update-rc.d ssh disable >/dev/null 2>&1 || true
  fi
fi
