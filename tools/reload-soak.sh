#!/usr/bin/env bash
# Reloads a running `nphost run` live, as an operator would, round after round: generated data,
# an endless input (a FIFO fed by cat in a loop), ten `nphost ctl ... update Reload` in a row,
# then SIGTERM, which must end the run with status 0 within ten seconds.
#   tools/reload-soak.sh BUILD_DIR [ROUNDS] [THREADS...]   (default: 50 rounds, 2 and 8 threads)
# Prints one line per thread count; exits 1 at the first round that hangs or fails.
set -euo pipefail
build="${1:?usage: tools/reload-soak.sh BUILD_DIR [ROUNDS] [THREADS...]}"
rounds="${2:-50}"
shift $(( $# >= 2 ? 2 : 1 ))
threads=("$@")
[ ${#threads[@]} -gt 0 ] || threads=(2 8)
nphost="$(realpath "$build/bin/nphost")"
work="$(mktemp -d /tmp/np-soak.XXXXXX)"
feeder=""
cleanup() {
  [ -n "$feeder" ] && kill "$feeder" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
"$(dirname "$nphost")/npgen" \
  --records 300000 --data np.txt --events events.txt >/dev/null 2>&1
cat > reg.toml <<TOML
[NumberPortability]
Library = "DAT_NumberPortability"
FileName = "np.txt"
CountryCode = "49"
NationalAccessCode = "0"
TOML

for t in "${threads[@]}"; do
  longest=0
  for round in $(seq 1 "$rounds"); do
    rm -f events.fifo np.sock
    mkfifo events.fifo
    ( while cat events.txt; do :; done ) > events.fifo 2>/dev/null &
    feeder=$!
    "$nphost" run reg.toml --input events.fifo --output /dev/null --threads "$t" --control np.sock \
      --log log.txt 2> stderr.txt &
    pid=$!
    for _ in $(seq 1 600); do [ -S np.sock ] && "$nphost" ctl np.sock usable >/dev/null 2>&1 && break; sleep 0.05; done
    for reload in $(seq 1 10); do
      answer="$(timeout 60 "$nphost" ctl np.sock update Reload ReuseOnFailure=TRUE || true)"
      if [ "$answer" != "update result=true taken=true" ]; then
        echo "threads $t, round $round, reload $reload: answered '$answer'" >&2; kill -9 "$pid"; exit 1
      fi
    done
    start=$(date +%s%N)
    kill -TERM "$pid"
    for _ in $(seq 1 200); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
    if kill -0 "$pid" 2>/dev/null; then
      echo "threads $t, round $round: still running 10 s after SIGTERM" >&2; kill -9 "$pid"; exit 1
    fi
    status=0; wait "$pid" || status=$?
    kill "$feeder" 2>/dev/null || true; wait "$feeder" 2>/dev/null || true; feeder=""
    if [ "$status" -ne 0 ]; then echo "threads $t, round $round: exit status $status" >&2; cat stderr.txt >&2; exit 1; fi
    ms=$(( ($(date +%s%N) - start) / 1000000 ))
    [ "$ms" -gt "$longest" ] && longest=$ms
  done
  echo "threads $t: $rounds rounds of 10 live reloads passed; the longest end after SIGTERM took $longest ms"
done
