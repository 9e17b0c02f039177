#!/usr/bin/env bash
# Builds the Debian package kvx-ea_<version>_amd64.deb: the operator client
# /usr/bin/kvx-eactl, the agents it deploys under /usr/lib/kvx-ea/ (the static
# x86-64 agent, and those of the other CPUs that scripts/portable.sh built),
# the simulated backup program and its monitor stand-in, the man page
# kvx-eactl(1), the README, a machine-readable copyright file, the changelog
# and the md5sums.  The programs carry Debian's build flags (dpkg-buildflags,
# applied by tools/CMakeLists.txt).
#
#   scripts/package.sh [--bin DIR] [--out DIR] [--lintian]
#
#   --bin DIR   take the programs from DIR instead of building them in build/
#   --out DIR   where the package goes (default: build/)
#   --lintian   check the package with lintian: any error or warning fails
#
# Prints the package's path.  Installs nothing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=
out="$root/build"
check=no
while [ $# -gt 0 ]; do
  case "$1" in
    --bin) bin=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --lintian) check=yes; shift ;;
    *) echo "usage: scripts/package.sh [--bin DIR] [--out DIR] [--lintian]" >&2; exit 2 ;;
  esac
done
maintainer="kvx_ea developers <kvx-ea@example.com>"

if [ -z "$bin" ]; then
  bash "$root/scripts/setup.sh"
  cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$root/build" -j"$(nproc 2>/dev/null || echo 2)" \
    --target kvx-eactl kvx_ea-static kvxbackupvol-sim >/dev/null
  bin="$root/build/bin"
fi
for f in kvx-eactl kvx_ea-static kvxbackupvol-sim; do
  [ -x "$bin/$f" ] || { echo "package: $bin/$f is missing" >&2; exit 1; }
done
arch=$(dpkg --print-architecture)
version=$("$bin/kvx-eactl" --version | awk '{ print $2 }')
mkdir -p "$out"
deb="$out/kvx-ea_${version}_${arch}.deb"

work=$(mktemp -d /tmp/kvx-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
stage="$work/stage"
install -D -m 755 "$bin/kvx-eactl" "$stage/usr/bin/kvx-eactl"
# The agents of other CPUs that scripts/portable.sh built (and stripped).
others=$(awk '!/^#/ && NF { print "kvx_ea-" $1 }' "$root/scripts/arches.txt")
for f in kvx_ea-static $others kvxbackupvol-sim; do
  if [ -f "$bin/$f" ]; then
    install -D -m 755 "$bin/$f" "$stage/usr/lib/kvx-ea/$f"
  fi
done
# the build machine's strip reads only its own CPU's programs; scripts/portable.sh strips the others
strip --strip-unneeded --remove-section=.comment --remove-section=.note \
  "$stage/usr/bin/kvx-eactl" "$stage"/usr/lib/kvx-ea/{kvx_ea-static,kvxbackupvol-sim}
install -m 755 "$root/tools/kvxmonitor-sim" "$stage/usr/lib/kvx-ea/kvxmonitor-sim"
mkdir -p "$stage/usr/share/man/man1" "$stage/usr/share/doc/kvx-ea"
# the page's footer names the version of the programs it ships with
sed '1s/"kvx-ea"/"kvx-ea '"$version"'"/' "$root/docs/kvx-eactl.1" | gzip -9n >"$stage/usr/share/man/man1/kvx-eactl.1.gz"
install -m 644 "$root/README.md" "$stage/usr/share/doc/kvx-ea/README.md"
# The programs that go to nodes are static on purpose (they run where no
# library is installed), and the agents of other CPUs are for other nodes.
mkdir -p "$stage/usr/share/lintian/overrides"
{
  printf '# copied to nodes that may have no libraries: static on purpose\n'
  printf 'kvx-ea: statically-linked-binary [usr/lib/kvx-ea/kvxbackupvol-sim*]\n'
  # lintian spares kvx_ea-static by its name; an override nothing matches is
  # itself a warning, so the lines for the other CPUs come only with their agents
  if ls "$stage"/usr/lib/kvx-ea/kvx_ea-* 2>/dev/null | grep -qv '/kvx_ea-static$'; then
    printf 'kvx-ea: statically-linked-binary [usr/lib/kvx-ea/kvx_ea-*]\n'
    printf '# agents for nodes of other CPUs, never run on this machine\n'
    printf 'kvx-ea: binary-from-other-architecture [usr/lib/kvx-ea/kvx_ea-*]\n'
  fi
} >"$stage/usr/share/lintian/overrides/kvx-ea"
cat >"$stage/usr/share/doc/kvx-ea/copyright" <<COPYRIGHT
Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: kvx-ea
Upstream-Contact: $maintainer

Files: *
Copyright: 2026 kvx_ea developers
License: proprietary
 All rights reserved.  This package is distributed to the product's
 customers under the terms of their license agreement.
COPYRIGHT
# A native package's changelog: this version, dated by the source's last change.
when=$(git -C "$root" log -1 --format=%cD 2>/dev/null || date -R)
{
  printf 'kvx-ea (%s) stable; urgency=medium\n\n' "$version"
  printf '  * kvx-eactl: exit statuses, getopt_long options, host ranges and\n'
  printf '    Ansible inventories, shared ssh connections and the node'"'"'s agent\n'
  printf '    cache, clean interrupts, JSON records.\n'
  printf '  * Deploys where /tmp is noexec or read-only.\n\n'
  printf ' -- %s  %s\n' "$maintainer" "$when"
} | gzip -9n >"$stage/usr/share/doc/kvx-ea/changelog.gz"
chmod 644 "$stage/usr/share/doc/kvx-ea/changelog.gz" "$stage/usr/share/doc/kvx-ea/copyright" \
  "$stage/usr/share/man/man1/kvx-eactl.1.gz"

# The shared libraries of the dynamically linked programs, as Debian names them.
mkdir -p "$work/debian"
printf 'Source: kvx-ea\n\nPackage: kvx-ea\nArchitecture: any\n' >"$work/debian/control"
depends=$(cd "$work" && dpkg-shlibdeps -O -e stage/usr/bin/kvx-eactl \
            -e stage/usr/lib/kvx-ea/kvxbackupvol-sim 2>/dev/null | sed -n 's/^shlibs:Depends=//p')

mkdir -p "$stage/DEBIAN"
(cd "$stage" && find usr -type f -print0 | sort -z | xargs -0 md5sum) >"$stage/DEBIAN/md5sums"
chmod 644 "$stage/DEBIAN/md5sums"
cat >"$stage/DEBIAN/control" <<CONTROL
Package: kvx-ea
Version: $version
Architecture: $arch
Maintainer: $maintainer
Section: admin
Priority: optional
Installed-Size: $(du -sk "$stage/usr" | cut -f1)
Depends: $depends
Recommends: openssh-client
Suggests: ansible-core
Description: execution agent of the Linux backup product, with its operator client
 kvx-eactl deploys the execution agent kvx_ea on this machine or over ssh on
 many nodes in parallel, the way the backup server does, and calls its
 procedures: ping, commands, job status, activity log, job result, mounts,
 VM detection and the machine check.  The agents are statically linked and
 need no libraries on the nodes.
CONTROL
dpkg-deb --root-owner-group --build "$stage" "$deb" >/dev/null
if [ $check = yes ]; then
  command -v lintian >/dev/null || { echo "package: lintian is missing (scripts/setup.sh installs it)" >&2; exit 1; }
  # errors and warnings fail; informational tags are shown
  lintian --fail-on error,warning "$deb" >&2 || { echo "package: lintian rejects $deb" >&2; exit 1; }
fi
echo "$deb"
