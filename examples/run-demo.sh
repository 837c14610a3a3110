#!/usr/bin/env bash
# Runs examples/demo.script with nphost on a copy of the example data in a temporary folder,
# because the delta load in the demo rewrites the main data file.
#   examples/run-demo.sh [NPHOST [nphost options ...]]
# NPHOST defaults to build/gcc/bin/nphost (tools/build-and-test.sh builds it there). Set
# NP_DEMO_KEEP=1 to keep the folder and look at the rewritten data file afterwards.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
nphost="${1:-$here/../build/gcc/bin/nphost}"
[ $# -gt 0 ] && shift
if [ ! -x "$nphost" ]; then
  echo "run-demo.sh: no nphost at '$nphost'; build it or pass its path as the first argument" >&2
  exit 1
fi
nphost="$(realpath "$nphost")"

work="$(mktemp -d "${TMPDIR:-/tmp}/np-demo.XXXXXX")"
if [ "${NP_DEMO_KEEP:-0}" = 1 ]; then
  echo "run-demo.sh: working in $work (kept)" >&2
else
  trap 'rm -rf "$work"' EXIT
fi
mkdir "$work/examples"
cp "$here/registry.toml" "$here/np_data.txt" "$here/np_delta.txt" "$here/demo.script" "$work/examples/"

cd "$work"
"$nphost" script examples/registry.toml "$@" < examples/demo.script
