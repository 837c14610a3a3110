#!/usr/bin/env bash
# Builds the project with warnings as errors and runs every test.
#   tools/build-and-test.sh [gcc|clang|asan|tsan]   (default: gcc)
# Each variant builds in its own folder under build/.
set -euo pipefail
cd "$(dirname "$0")/.."
variant="${1:-gcc}"
tools/install-deps.sh

case "$variant" in
  gcc)   args=(-DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  clang) args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan)  args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DNP_SANITIZER=address) ;;
  tsan)  args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNP_SANITIZER=thread) ;;
  *) echo "unknown variant '$variant' (gcc, clang, asan or tsan)" >&2; exit 2 ;;
esac

build="build/$variant"
cmake -S . -B "$build" -G Ninja -DNP_WERROR=ON "${args[@]}"
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j2 --timeout 300
