#!/usr/bin/env bash
# Builds the Debian package of nphost: the build of a variant (tools/build.sh, the main job's
# targets) packed by CPack's DEB generator into build/<variant>/deb/nphost_<version>_<arch>.deb,
# whose path it prints last. Its run-time dependencies are found by dpkg-shlibdeps.
#   tools/package.sh [gcc|clang]   (default: gcc)
# Exit status: 0 made; 1 the build or the packing failed (the end of the log is shown); 2 a bad
# command line.
set -euo pipefail
cd "$(dirname "$0")/.."

variant="${1:-gcc}"
case "$variant" in
  gcc|clang) ;;
  *) echo "usage: tools/package.sh [gcc|clang]  (a sanitizer build is not for installing)" >&2; exit 2 ;;
esac
[ $# -le 1 ] || { echo "usage: tools/package.sh [gcc|clang]" >&2; exit 2; }

tools/install-deps.sh --package "$variant"
tools/build.sh "$variant"
folder="build/$variant"
log="$folder/package.log"
echo "== packing $folder into $folder/deb (CPack's output goes to $log)"
rm -rf "$folder/deb"
if ! cpack --config "$folder/CPackConfig.cmake" -G DEB -B "$folder/deb" >"$log" 2>&1; then
  echo "tools/package.sh: packing failed; the end of $log:" >&2
  tail -n 40 "$log" >&2
  exit 1
fi
ls "$folder"/deb/nphost_*.deb
