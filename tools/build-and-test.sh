#!/usr/bin/env bash
# Installs what the tests need, builds everything with warnings as errors and runs every test.
#   tools/build-and-test.sh [gcc|clang|asan|tsan]   (default: gcc)
set -euo pipefail
cd "$(dirname "$0")/.."
variant="${1:-gcc}"
tools/build.sh --tests "$variant"
ctest --test-dir "build/$variant" --output-on-failure -j2 --timeout 300
