#!/usr/bin/env bash
# Builds the Debian package kvx-ea_<version>_amd64.deb: the operator client
# /usr/bin/kvx-eactl, the agents it deploys under /usr/lib/kvx-ea/ (the static
# x86-64 agent, and those of the other CPUs that scripts/portable.sh built), the
# simulated backup program, the man page kvx-eactl(1) and the README.
#
#   scripts/package.sh [--bin DIR] [--out DIR]
#
#   --bin DIR   take the programs from DIR instead of building them in build/
#   --out DIR   where the package goes (default: build/)
#
# Prints the package's path.  Installs nothing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=
out="$root/build"
while [ $# -gt 0 ]; do
  case "$1" in
    --bin) bin=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    *) echo "usage: scripts/package.sh [--bin DIR] [--out DIR]" >&2; exit 2 ;;
  esac
done

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
strip --strip-unneeded "$stage/usr/bin/kvx-eactl" "$stage"/usr/lib/kvx-ea/{kvx_ea-static,kvxbackupvol-sim}
mkdir -p "$stage/usr/share/man/man1" "$stage/usr/share/doc/kvx-ea"
gzip -9n <"$root/docs/kvx-eactl.1" >"$stage/usr/share/man/man1/kvx-eactl.1.gz"
install -m 644 "$root/README.md" "$stage/usr/share/doc/kvx-ea/README.md"

# The shared libraries of the dynamically linked programs, as Debian names them.
mkdir -p "$work/debian"
printf 'Source: kvx-ea\n\nPackage: kvx-ea\nArchitecture: any\n' >"$work/debian/control"
depends=$(cd "$work" && dpkg-shlibdeps -O -e stage/usr/bin/kvx-eactl \
            -e stage/usr/lib/kvx-ea/kvxbackupvol-sim 2>/dev/null | sed -n 's/^shlibs:Depends=//p')

mkdir -p "$stage/DEBIAN"
cat >"$stage/DEBIAN/control" <<CONTROL
Package: kvx-ea
Version: $version
Architecture: $arch
Maintainer: kvx_ea developers <kvx-ea@localhost>
Section: admin
Priority: optional
Installed-Size: $(du -sk "$stage/usr" | cut -f1)
Depends: $depends
Recommends: openssh-client
Description: execution agent of the Linux backup product, with its operator client
 kvx-eactl deploys the execution agent kvx_ea on this machine or over ssh on
 many nodes in parallel, the way the backup server does, and calls its
 procedures: ping, commands, job status, activity log, job result, mounts,
 VM detection and the machine check.  The agents are statically linked and
 need no libraries on the nodes.
CONTROL
dpkg-deb --root-owner-group --build "$stage" "$deb" >/dev/null
echo "$deb"
