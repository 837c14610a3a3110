#!/usr/bin/env bash
# The package on a fresh Debian 12 as an operator installs it: a minimal root made by
# debootstrap, the package made from this build copied in and installed with apt-get (which must
# find every dependency by itself), the installed nphost run there on data of its own, then
# removed (configuration and data stay) and purged (configuration and logs go, data stays).
#   package/tests/fresh-root.sh BUILD_FOLDER
# It downloads a few dozen MB and takes some minutes, so it runs only where NP_FRESH_ROOT=1 (CI
# sets it for one build variant); otherwise it says so and exits 77, which CTest counts as
# skipped. Everything it makes lives under BUILD_FOLDER/fresh-root and is removed at the end.
set -euo pipefail

build="$(cd "${1:?usage: fresh-root.sh BUILD_FOLDER}" && pwd)"
if [ "${NP_FRESH_ROOT:-0}" != 1 ]; then
  echo "skipped: set NP_FRESH_ROOT=1 to install the package into a fresh Debian 12 root"
  exit 77
fi
for tool in debootstrap cpack dpkg-deb; do
  command -v "$tool" >/dev/null || { echo "fresh-root.sh: $tool is missing (tools/install-deps.sh --tests)" >&2; exit 1; }
done

work="$build/fresh-root"
root="$work/root"
cleanup() {
  if mountpoint -q "$root/proc" 2>/dev/null; then
    umount "$root/proc" || umount -l "$root/proc" || true
  fi
  # Never remove a tree that still holds a mounted file system.
  if mountpoint -q "$root/proc" 2>/dev/null; then
    echo "fresh-root.sh: $root/proc is still mounted; $work is left" >&2
    return
  fi
  rm -rf "$work"
}
trap cleanup EXIT
cleanup
mkdir -p "$work"
started=$SECONDS
step() { echo "== $((SECONDS - started)) s: $*"; }
fail() { echo "FAILED: $*" >&2; exit 1; }
in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }

step "packing the build"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/deb" >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail "cpack"; }
package="$(ls "$work"/deb/nphost_*.deb)"

step "debootstrap --variant=minbase bookworm"
debootstrap --variant=minbase bookworm "$root" http://deb.debian.org/debian >"$work/debootstrap.log" 2>&1 ||
  { tail -n 30 "$work/debootstrap.log"; fail "debootstrap"; }
mount -t proc proc "$root/proc"

step "apt-get install ./$(basename "$package") in the root"
cp "$package" "$root/tmp/"
in_root apt-get update -q >"$work/apt.log" 2>&1 || { tail -n 30 "$work/apt.log"; fail "apt-get update"; }
in_root apt-get install -y -q "/tmp/$(basename "$package")" >>"$work/apt.log" 2>&1 ||
  { tail -n 30 "$work/apt.log"; fail "apt-get install of the package"; }
echo "   $(grep -c '^Setting up' "$work/apt.log") packages set up, among them: $(grep -oE '^Setting up (nphost|libfmt9|libtomlplusplus3|libsystemd0|adduser|logrotate)[^ ]*' "$work/apt.log" | cut -d' ' -f3 | tr '\n' ' ')"

step "checking the installation"
in_root getent passwd nphost | grep -q ':/var/lib/nphost:/usr/sbin/nologin$' || fail "no system user nphost"
in_root getent group nphost >/dev/null || fail "no group nphost"
for file in /usr/bin/nphost /usr/lib/libnpframework.so /usr/lib/libDAT_NumberPortability.so \
            /usr/lib/DAT_NumberPortability.probe /usr/lib/systemd/system/nphost.service /etc/logrotate.d/nphost \
            /etc/nphost/registry.toml /usr/share/man/man1/nphost.1.gz /usr/share/man/man5/nphost-registry.5.gz \
            /usr/share/man/man5/nphost-data.5.gz; do
  [ -f "$root$file" ] || fail "$file is not installed"
done
for folder in /var/lib/nphost /var/log/nphost; do
  owner="$(in_root stat -c %U:%G:%a "$folder")"
  [ "$owner" = nphost:nphost:750 ] || fail "$folder is $owner, not nphost:nphost:750"
done
grep -qx /etc/nphost/registry.toml "$root/var/lib/dpkg/info/nphost.conffiles" || fail "the registry is no conffile"
[ ! -e "$root/etc/systemd/system/multi-user.target.wants/nphost.service" ] || fail "the package enabled the unit"
in_root nphost --version | grep -q "$(dpkg-deb -f "$package" Version)" || fail "nphost --version"

step "running the installed nphost on data in the root"
# Without its data file nphost ends with the status on which the unit stops restarting it.
set +e
in_root sh -c 'cd /var/lib/nphost && nphost check /etc/nphost/registry.toml' >"$work/check.txt" 2>&1
status=$?
set -e
[ "$status" = 3 ] || { cat "$work/check.txt"; fail "check without a data file: status $status, not 3"; }
printf '+4930123456 20200101000000 OPA\n030123456 20230301000000 OPB\n' >"$root/var/lib/nphost/np_data.txt"
in_root sh -c 'cd /var/lib/nphost && nphost check /etc/nphost/registry.toml' >"$work/check.txt" 2>&1 ||
  { cat "$work/check.txt"; fail "nphost check"; }
sed 's/^/   /' "$work/check.txt"
enriched="$(echo '004930123456;20240101000000;x' |
  in_root setpriv --reuid=nphost --regid=nphost --init-groups sh -c 'cd /var/lib/nphost && nphost run /etc/nphost/registry.toml --log /var/log/nphost/nphost.log' 2>"$work/run.txt")"
[ "$enriched" = '004930123456;20240101000000;x;OPB' ] || fail "nphost run wrote '$enriched'"
echo "   nphost run: $enriched"
grep -q INF_NPHOST_READY "$root/var/log/nphost/nphost.log" || fail "no log in /var/log/nphost"

step "apt-get remove"
in_root apt-get remove -y -q nphost >"$work/remove.log" 2>&1 || { tail "$work/remove.log"; fail "remove"; }
[ ! -e "$root/usr/bin/nphost" ] || fail "remove left /usr/bin/nphost"
for kept in /etc/nphost/registry.toml /var/log/nphost/nphost.log /var/lib/nphost/np_data.txt; do
  [ -f "$root$kept" ] || fail "remove took $kept"
done

step "apt-get purge"
in_root apt-get purge -y -q nphost >"$work/purge.log" 2>&1 || { tail "$work/purge.log"; fail "purge"; }
for gone in /etc/nphost /var/log/nphost /etc/logrotate.d/nphost; do
  [ ! -e "$root$gone" ] || fail "purge left $gone"
done
[ -f "$root/var/lib/nphost/np_data.txt" ] || fail "purge took the data file"

step "done: installed, ran, removed and purged in a fresh Debian 12 root"
