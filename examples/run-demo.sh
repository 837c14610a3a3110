#!/usr/bin/env bash
# Runs examples/demo.script with nphost on a copy of the example data in a temporary folder,
# because the delta load in the demo rewrites the main data file.
#   examples/run-demo.sh [NPHOST [nphost options ...]]
# NPHOST defaults to build/gcc/bin/nphost (tools/build-and-test.sh builds it there). Set
# NP_DEMO_KEEP=1 to keep the folder and look at the rewritten data file afterwards.
set -euo pipefail
script=run-demo.sh
files=(registry.toml np_data.txt np_delta.txt demo.script)
source "$(dirname "$0")/copy-to-temp.sh"
"$nphost" script examples/registry.toml "$@" < examples/demo.script
