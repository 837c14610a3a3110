#!/usr/bin/env bash
# The main job on the example data: `nphost run` enriches examples/events.txt (event records
# NUMBER;YYYYMMDDHHMMSS;CALLID;DURATION) with the operator that served each number at the
# event's time. Works on a copy of the example data in a temporary folder, like run-demo.sh.
#   examples/run-main.sh [NPHOST [nphost run options ...]]
# NPHOST defaults to build/gcc/bin/nphost (tools/build.sh builds it there). Set NP_DEMO_KEEP=1 to
# keep the folder and look at the whole output and the log afterwards.
set -euo pipefail
script=run-main.sh
files=(registry.toml np_data.txt events.txt)
source "$(dirname "$0")/copy-to-temp.sh"

echo "== nphost run examples/registry.toml --input examples/events.txt --output enriched.txt --log nphost.log"
status=0
"$nphost" run examples/registry.toml --input examples/events.txt --output enriched.txt --log nphost.log "$@" || status=$?
echo
echo "== the first enriched records (the operator is the last field; empty when none held)"
head -n 12 enriched.txt
echo
echo "== rejected input lines, as the log reports them"
grep ' nphost ERR_EVENT_RECORD_' nphost.log || echo "(none)"
exit "$status"
