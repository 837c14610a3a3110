#!/usr/bin/env bash
# Installs the Debian packages that a build needs, those that are missing only, and says which
# in one line. tools/build.sh calls it before it configures.
#   tools/install-deps.sh [--tests] [--package] [--log FILE] [gcc|clang|asan|tsan]   (default: gcc)
# Without --tests: what nphost, the framework and the plug-in need to build. With it, also what
# the tests, npgen and npbench need and the programs the tests run (logrotate, systemd-analyze,
# promtool and prometheus, the Debian package tools, debootstrap). With --package: what making
# the Debian package needs.
# apt-get's output is appended to FILE (default: shown).
# Exit status: 0 all installed; 1 not: apt-get failed, or they are missing and this is not root
# (and sudo is not there or refused), which one sentence with the apt-get line to run says.
set -euo pipefail

tests=0
package=0
log=""
while [ $# -gt 0 ]; do
  case "$1" in
    --tests) tests=1; shift ;;
    --package) package=1; shift ;;
    --log) log="${2:?--log needs a file}"; shift 2 ;;
    *) break ;;
  esac
done
variant="${1:-gcc}"

# The main job's packages come without the packages that they merely recommend: the first build
# on a fresh machine is timed, and the recommended ones (compilers of other languages, make,
# documentation) are not used. The rest install as they always have, recommendations included.
main=(cmake ninja-build g++ pkg-config libtomlplusplus-dev libcli11-dev nlohmann-json3-dev libfmt-dev
      libxxhash-dev libcpp-httplib-dev libsystemd-dev)
rest=()
case "$variant" in
  gcc) ;;
  clang) rest+=(clang) ;;
  asan|tsan) rest+=(clang libclang-rt-14-dev) ;;  # the sanitizer and libFuzzer runtimes
  *) echo "install-deps.sh: unknown variant '$variant' (gcc, clang, asan or tsan)" >&2; exit 1 ;;
esac
# CPack's DEB generator finds run-time dependencies with dpkg-shlibdeps (dpkg-dev) and file.
[ "$package" = 1 ] && rest+=(dpkg-dev file)
# The deployment test runs the packaged logrotate file and checks the unit; the package tests
# make the package and install it into a fresh Debian root; the metrics tests check a scrape
# with promtool and have a Prometheus server scrape nphost.
[ "$tests" = 1 ] && rest+=(libgtest-dev libgmock-dev logrotate systemd dpkg-dev file debootstrap prometheus)

missing() {
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
  done
}
mapfile -t missingMain < <(missing "${main[@]}")
mapfile -t missingRest < <(missing "${rest[@]}")
[ ${#missingMain[@]} -eq 0 ] && [ ${#missingRest[@]} -eq 0 ] && exit 0

# The commands that install them, as one line a person can also run.
line="apt-get update"
[ ${#missingMain[@]} -gt 0 ] && line+=" && apt-get install -y --no-install-recommends ${missingMain[*]}"
[ ${#missingRest[@]} -gt 0 ] && line+=" && apt-get install -y ${missingRest[*]}"

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "Packages are missing and only root can install them: run \"$line\" as root, then this command again." >&2
    exit 1
  fi
  sudo="sudo"
fi
all=("${missingMain[@]}" "${missingRest[@]}")
echo "== packages: installing ${all[*]}"
status=0
if [ -n "$log" ]; then
  $sudo env DEBIAN_FRONTEND=noninteractive bash -c "$line" >>"$log" 2>&1 || status=$?
else
  $sudo env DEBIAN_FRONTEND=noninteractive bash -c "$line" || status=$?
fi
if [ "$status" -ne 0 ]; then
  if [ -n "$sudo" ]; then
    echo "Packages are missing and sudo could not install them: run \"$line\" as root, then this command again." >&2
  else
    echo "install-deps.sh: \"$line\" failed${log:+; its output is in $log}" >&2
  fi
  exit 1
fi
