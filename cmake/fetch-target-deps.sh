#!/usr/bin/env bash
# Unpacks Debian's zlib for a foreign architecture into a folder of the build:
#   cmake/fetch-target-deps.sh ARCH DEST      (ARCH: armhf, arm64)
# Needs the architecture known to apt (dpkg --add-architecture ARCH; apt-get update).
set -euo pipefail
arch=$1 dest=$2
download=$(mktemp -d)
trap 'rm -rf "$download"' EXIT
(cd "$download" && apt-get download -q -o APT::Sandbox::User=root "zlib1g:$arch" "zlib1g-dev:$arch")
rm -rf "$dest"
mkdir -p "$dest"
dest=$(cd "$dest" && pwd)
for deb in "$download"/*.deb; do dpkg-deb -x "$deb" "$dest"; done
# One library folder, as on a merged-/usr system, so that the folder the linker
# found libz.so in (the programs' run path) also holds libz.so.1; and links that
# name absolute paths point into DEST.
if [ -d "$dest/lib" ]; then
  cp -a "$dest/lib/." "$dest/usr/lib/"
  rm -rf "$dest/lib"
fi
ln -s usr/lib "$dest/lib"
find "$dest" -type l | while read -r link; do
  target=$(readlink "$link")
  if [ "${target#/}" != "$target" ]; then ln -sfn "$dest$target" "$link"; fi
done
test -f "$dest/usr/include/zlib.h"
echo "fetch-target-deps: $arch zlib unpacked into $dest"
