#!/usr/bin/env bash
# Installs the packages that are missing and builds with warnings as errors, one line per stage;
# what the stages print goes to build/<variant>/build.log, whose end is shown when one fails.
#   tools/build.sh [--tests] [gcc|clang|asan|tsan]   (default: gcc)
# A new build folder is set up for the main job: nphost, the framework library and the plug-in.
# --tests sets it up for everything (the tests, npgen, npbench and, with asan, the fuzz target)
# with the packages that needs; a folder once set up so stays so. Each variant builds in
# build/<variant>/: programs in bin/, libraries in lib/.
# Exit status: 0 built; 1 a stage failed, or packages are missing that only root can install
# (one sentence says which); 2 a bad command line.
set -euo pipefail
cd "$(dirname "$0")/.."

tests=0
if [ "${1:-}" = --tests ]; then tests=1; shift; fi
variant="${1:-gcc}"
case "$variant" in
  gcc)   args=(-DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  clang) args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan)  args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DNP_SANITIZER=address) ;;
  tsan)  args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNP_SANITIZER=thread) ;;
  *) echo "usage: tools/build.sh [--tests] [gcc|clang|asan|tsan]" >&2; exit 2 ;;
esac
[ $# -le 1 ] || { echo "usage: tools/build.sh [--tests] [gcc|clang|asan|tsan]" >&2; exit 2; }

folder="build/$variant"
cache="$folder/CMakeCache.txt"
if [ "$tests" = 1 ]; then
  args+=(-DNP_TESTS=ON)
  # The fuzz targets need clang's libFuzzer and bring AddressSanitizer anyway: they build, and
  # run as tests for a bounded time, with the AddressSanitizer variant.
  if [ "$variant" = asan ]; then args+=(-DNP_FUZZ=ON); fi
elif [ ! -f "$cache" ]; then
  args+=(-DNP_TESTS=OFF)
elif ! grep -q '^NP_TESTS:BOOL=OFF$' "$cache"; then
  tests=1  # set up for everything before: rebuild all of it, so that no test runs stale
fi

mkdir -p "$folder"
log="$folder/build.log"
: >"$log"
started=$SECONDS

# Shows the end of the log and stops.
failed() {
  echo "tools/build.sh: $1 failed; the end of $log:" >&2
  tail -n 40 "$log" >&2
  exit 1
}

if [ "$tests" = 1 ]; then
  tools/install-deps.sh --tests --log "$log" "$variant"
  echo "== configuring $folder for everything: nphost, the framework, the plug-in, the tests, npgen, npbench"
else
  tools/install-deps.sh --log "$log" "$variant"
  echo "== configuring $folder for the main job: nphost, the framework and the plug-in (--tests adds the rest)"
fi
cmake -S . -B "$folder" -G Ninja -DNP_WERROR=ON "${args[@]}" >>"$log" 2>&1 || failed "configuring"
echo "== building (the compiler's output goes to $log)"
cmake --build "$folder" >>"$log" 2>&1 || failed "the build"
elapsed=$((SECONDS - started))
echo "== built in $((elapsed / 60)) min $((elapsed % 60)) s: the programs are in $folder/bin"
