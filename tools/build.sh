#!/usr/bin/env bash
# Installs what is missing and builds the project with warnings as errors.
#   tools/build.sh [gcc|clang|asan|tsan]   (default: gcc)
# Each variant builds in build/<variant>/: programs in bin/, libraries in lib/.
set -euo pipefail
cd "$(dirname "$0")/.."
variant="${1:-gcc}"
tools/install-deps.sh

case "$variant" in
  gcc)   args=(-DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  clang) args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  # The fuzz targets need clang's libFuzzer and bring AddressSanitizer anyway: they build, and
  # run as tests for a bounded time, with the AddressSanitizer variant.
  asan)  args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DNP_SANITIZER=address -DNP_FUZZ=ON) ;;
  tsan)  args=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNP_SANITIZER=thread) ;;
  *) echo "unknown variant '$variant' (gcc, clang, asan or tsan)" >&2; exit 2 ;;
esac

cmake -S . -B "build/$variant" -G Ninja -DNP_WERROR=ON "${args[@]}" >/dev/null
cmake --build "build/$variant"
