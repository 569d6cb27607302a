#!/usr/bin/env bash
# Builds the Debian package quordaemon_<version>_<arch>.deb from the working
# tree with debhelper (debian/), then checks it with lintian, which must
# report no error. Installs the build dependencies with apt when missing.
#
#   scripts/package.sh [OUTDIR]     the package goes to OUTDIR (default build/pkg)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh debhelper dpkg-dev lintian systemd logrotate

out=$(realpath -m "${1:-build/pkg}")
version=$(dpkg-parsechangelog -S Version)
project=$(sed -n 's/^project(quor VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
if [ "$version" != "$project" ]; then
  echo "error: debian/changelog says $version, CMakeLists.txt $project" >&2
  exit 1
fi

# dpkg-buildpackage writes beside the source tree, so it works on a copy of
# the tracked and new files in OUTDIR/src.
rm -rf "$out"
mkdir -p "$out/src"
git ls-files -z --cached --others --exclude-standard |
  tar --null --files-from=- --ignore-failed-read -cf - 2>/dev/null | tar -xf - -C "$out/src"
(cd "$out/src" && DEB_BUILD_OPTIONS="nocheck noautodbgsym parallel=$(nproc)" dpkg-buildpackage -b --no-sign >"$out/build.log" 2>&1) || {
  tail -n 40 "$out/build.log" >&2
  echo "error: the package build failed; the whole log is $out/build.log" >&2
  exit 1
}
deb=$(ls "$out"/quordaemon_"$version"_*.deb)
echo "== Built $deb"

echo "== lintian"
lintian --fail-on error --display-info "$deb" | tee "$out/lintian.log"
echo "lintian: $(grep -c '^E:' "$out/lintian.log" || true) errors, $(grep -c '^W:' "$out/lintian.log" || true) warnings, $(grep -c '^I:' "$out/lintian.log" || true) notes"
