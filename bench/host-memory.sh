#!/usr/bin/env bash
# The memory of a real `nphost run` as an operator's monitoring sees it: the peak (VmHWM) and the
# resident memory (VmRSS) after the start-up load, after a reload and after a delta load through
# the control socket, in kB and in bytes per line of the data file. The peak is reset between
# the steps (/proc/PID/clear_refs), so each step's figure is that step's own. A second run on a
# one-line data file gives what the program takes without data; resident memory less that is
# what the data (both trees, and whatever a load left behind) holds.
#   bench/host-memory.sh BUILD_DIR DATA_FILE DELTA_FILE [THREADS]   (default: 1 lookup thread)
# The data file is copied (a delta load rewrites it); the input is a FIFO whose writer sends
# nothing, so the run serves until it is ended. Exit status: 0 measured; 1 a step failed.
set -euo pipefail
build="${1:?usage: bench/host-memory.sh BUILD_DIR DATA_FILE DELTA_FILE [THREADS]}"
data="$(realpath "${2:?usage: bench/host-memory.sh BUILD_DIR DATA_FILE DELTA_FILE [THREADS]}")"
delta="$(realpath "${3:?usage: bench/host-memory.sh BUILD_DIR DATA_FILE DELTA_FILE [THREADS]}")"
threads="${4:-1}"
nphost="$(realpath "$build/bin/nphost")"
work="$(mktemp -d /tmp/np-memory.XXXXXX)"
pid=""
writer=""
cleanup() {
  [ -n "$pid" ] && kill -9 "$pid" 2>/dev/null || true
  [ -n "$writer" ] && kill "$writer" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
cat > reg.toml <<TOML
[NumberPortability]
Library = "DAT_NumberPortability"
FileName = "np.txt"
CountryCode = "49"
NationalAccessCode = "0"
TOML

# A figure of /proc/PID/status in kB.
field() { awk -v key="$1:" '$1 == key { print $2 }' "/proc/$pid/status"; }

# Starts `nphost run` on np.txt and returns once its control socket is up (the load has ended).
start() {
  rm -f np.sock events.fifo
  mkfifo events.fifo
  sleep 100000 > events.fifo &
  writer=$!
  "$nphost" run reg.toml --input events.fifo --output /dev/null --threads "$threads" --control np.sock \
    --log log.txt 2> stderr.txt &
  pid=$!
  until [ -S np.sock ]; do
    if ! kill -0 "$pid" 2>/dev/null; then echo "nphost run ended during its start:" >&2; cat stderr.txt >&2; exit 1; fi
    sleep 0.1
  done
}

stop() {
  kill -TERM "$pid"
  wait "$pid" || { echo "nphost run ended with status $?" >&2; exit 1; }
  pid=""
  kill "$writer" 2>/dev/null || true
  wait "$writer" 2>/dev/null || true
  writer=""
}

# One line of figures for the step just done, then a fresh peak for the next.
lines=0
program=0
report() {
  local peak resident
  peak="$(field VmHWM)"
  resident="$(field VmRSS)"
  awk -v step="$1" -v peak="$peak" -v resident="$resident" -v lines="$lines" -v program="$program" 'BEGIN {
    printf "%-10s peak %9d kB %6.1f B/line   resident %9d kB %6.1f B/line   resident less the program %6.1f B/line\n",
      step, peak, peak * 1024 / lines, resident, resident * 1024 / lines, (resident - program) * 1024 / lines }'
  echo 5 > "/proc/$pid/clear_refs"
}

echo "load average at start: $(cut -d' ' -f1-3 /proc/loadavg)"
head -n 1 "$data" > np.txt
start
program="$(field VmRSS)"
echo "the program with one data line: resident $program kB"
stop

cp "$data" np.txt
lines="$(wc -l < np.txt)"
echo "data: $lines lines ($data), delta: $(wc -l < "$delta") lines"
start
report start-up
"$nphost" ctl np.sock reload > answer.txt || { cat answer.txt >&2; exit 1; }
report reload
"$nphost" ctl np.sock delta "$delta" > answer.txt || { cat answer.txt >&2; exit 1; }
report delta
stop
