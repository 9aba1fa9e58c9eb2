#!/usr/bin/env bash
# ./dev demo in a fresh clone of this checkout while a package it needs is missing and the
# package index cannot be updated (one of the sources does not exist): ./dev must say in one
# line that it goes on with the lists it has, install the package from them and pass.
# It removes a Debian package, so it runs as root only, alone, and puts the package back however
# it ends. The broken source is seen only by the apt-get of this run (APT_CONFIG), never by
# anyone else's apt-get on the machine.
# Usage: demo_with_broken_index.sh SOURCE_DIR
set -euo pipefail
source_dir=$1
# Needed by ./dev demo; only the Python tests use it, and ctest runs them apart from this one.
package=python3-pytest

skip() {
  # CI runs as root on Debian: a skip there would hide that the test never ran.
  if [ "${CI:-}" = true ]; then echo "dev: cannot run in CI: $*" >&2; exit 1; fi
  echo "dev: skipped: $*"
  exit 77
}
fail() { echo "dev: $*" >&2; exit 1; }
installed() { dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; }

[ "$(id -u)" -eq 0 ] || skip "it removes and reinstalls $package, which needs root"
command -v apt-get >/dev/null || skip "no apt-get on this machine"
git -C "$source_dir" rev-parse -q --verify HEAD >/dev/null || skip "$source_dir is no git checkout"
installed || fail "$package is not installed (./dev installs it before it builds the tests)"
removed=$(apt-get -s remove "$package" | grep '^Remv ' | cut -d' ' -f2)
[ "$removed" = "$package" ] || fail "removing $package would also remove: $removed"
# The package must come back even if the mirror goes away meanwhile: fetch it into the cache.
for attempt in 1 2 3 0; do
  apt-get install --reinstall --download-only -y -qq -o DPkg::Lock::Timeout=300 "$package" \
    >/dev/null && break
  [ "$attempt" -gt 0 ] || skip "apt-get cannot fetch $package here"
  sleep $((attempt * 10))
done

work=$(mktemp -d)
auto=$(apt-mark showauto "$package")
restore() {
  installed || apt-get install -y -qq --no-install-recommends -o DPkg::Lock::Timeout=300 \
    "$package" >/dev/null || echo "dev: could not reinstall $package" >&2
  [ -z "$auto" ] || apt-mark auto "$package" >/dev/null
  rm -rf "$work"
}
trap restore EXIT
trap 'exit 1' HUP INT TERM

# The machine's sources plus one that does not exist, for this run's apt-get only.
parts=/etc/apt/sources.list.d/
eval "$(apt-config shell parts Dir::Etc::sourceparts/d)"
mkdir "$work/sources"
for source in "$parts"*; do
  [ ! -e "$source" ] || ln -s "$source" "$work/sources/"
done
echo "deb [trusted=yes] file:$work/no-such-archive ./" >"$work/sources/zu-broken.list"
echo "Dir::Etc::sourceparts \"$work/sources/\";" >"$work/apt.conf"

git -c init.defaultBranch=main init -q "$work/clone"
git -C "$work/clone" fetch -q "$source_dir" HEAD
git -C "$work/clone" checkout -q FETCH_HEAD

apt-get remove -y -qq -o DPkg::Lock::Timeout=300 "$package" >/dev/null
installed && fail "$package is still installed after apt-get remove"
status=0
(cd "$work/clone" && APT_CONFIG="$work/apt.conf" ZU_APT_PAUSE=1 timeout 1500 \
  ./dev demo --count 1000) >"$work/demo.log" 2>&1 || status=$?
cat "$work/demo.log"
[ "$status" -eq 0 ] || fail "./dev demo failed (exit $status)"
[ "$(grep -c 'going on with the package lists this machine has' "$work/demo.log")" -eq 1 ] ||
  fail "./dev demo did not say once that it went on with the lists it has"
grep -q "all checks passed" "$work/demo.log" || fail "zu demo did not pass"
installed || fail "./dev demo passed but did not install $package"
echo "dev: ./dev demo installed $package without an index update and passed"
