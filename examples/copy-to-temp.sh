# Sourced by the example scripts, which work on copies because a delta load rewrites the data
# file. Expects `script` (its name, for messages) and `files` (example files to copy); takes
# the nphost path from the first argument (default build/gcc/bin/nphost) and shifts it away,
# then enters a new temporary folder that holds the copies under examples/. NP_DEMO_KEEP=1
# keeps the folder.
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
nphost="${1:-$here/../build/gcc/bin/nphost}"
[ $# -gt 0 ] && shift
if [ ! -x "$nphost" ]; then
  echo "$script: no nphost at '$nphost'; build it or pass its path as the first argument" >&2
  exit 1
fi
nphost="$(realpath "$nphost")"

work="$(mktemp -d "${TMPDIR:-/tmp}/np-example.XXXXXX")"
if [ "${NP_DEMO_KEEP:-0}" = 1 ]; then
  echo "$script: working in $work (kept)" >&2
else
  trap 'rm -rf "$work"' EXIT
fi
mkdir "$work/examples"
for file in "${files[@]}"; do cp "$here/$file" "$work/examples/"; done
cd "$work"
