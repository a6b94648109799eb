#!/bin/bash
# The Debian packages on an otherwise empty machine: a root made with debootstrap, in which apt
# installs them with their dependencies, and their tests (debian/tests) run.
#
# CACHE-DIRECTORY keeps the root without the packages, and apt's downloads, for a day. Mounts vanish with
# their namespace. Ends with 77, skipped, without root's rights or a mirror; with AHS_NO_SKIP in the
# environment that is a failure.
# Usage: clean_root_test.sh SOURCE-DIRECTORY CACHE-DIRECTORY PACKAGES-DIRECTORY [CODENAME]
set -euo pipefail
# shellcheck source=tests/package/debian_root.sh
. "$(dirname "$0")/debian_root.sh"
[ "$1" = --inside ] || in_own_mounts "$0" "$@"
shift
source=$1 cache=$2 packages=$3
codename=${4:-$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)}
scratch=$(mktemp -d)
root=$scratch/root
cleanup() {
  for place in proc var/cache/apt/archives .; do
    umount -q "$root/$place" 2>/dev/null || true
  done
  rm -rf --one-file-system "$scratch"
}
trap cleanup EXIT
for program in debootstrap dpkg-buildpackage dh lintian; do
  command -v "$program" >/dev/null || skip "$program is not installed"
done
git -C "$source" rev-parse 2>/dev/null || skip "the sources are no checkout of git"

phase "base system"
mkdir "$root"
# What is not written to a disk need not be removed from it. The root takes up to 1 GiB.
if [ "$(sed -n 's/^MemAvailable: *\([0-9]*\) kB/\1/p' /proc/meminfo)" -gt $((4 * 1024 * 1024)) ]; then
  mount -t tmpfs -o size=2g,mode=755 clean-root "$root"
fi
unpack_base "$cache"

mkdir "$root/packages" "$root/source" "$scratch/files"
for package in ahs libahs1 libahs-dev; do
  cp "$packages/$package"_*.deb "$root/packages/$package.deb"
  dpkg-deb -x "$root/packages/$package.deb" "$scratch/files"
done
"$source/tests/package/hardening_test.sh" "$scratch/files" || fail "a program or library is not hardened"
cp -r "$source/debian" "$source/examples" "$root/source"

# run_test NAME: runs one of debian/tests, with its dependencies.
run_test() {
  local words
  phase "test $1"
  words=$(sed -n "/^Tests: $1\$/,/^\$/s/^Depends: //p" "$source/debian/tests/control" | tr -d ,)
  # The names are several words.
  # shellcheck disable=SC2001,SC2046
  quiet install apt install $(sed -E 's=\b(ahs|libahs-dev)\b=/packages/\1.deb=g' <<<"$words") /packages/libahs1.deb ||
    fail "apt does not install the packages"
  mkdir "$root/root/$1"
  quiet "$1" within env -C /source AUTOPKGTEST_TMP="/root/$1" "debian/tests/$1" || fail "$1"
}
run_test command
for file in man/man1/ahs.1.gz man/man5/ahs-profile.5.gz bash-completion/completions/ahs \
  doc/ahs/README.md doc/ahs/docs/cli.md doc/ahs/docs/result-page.png; do
  [ -e "$root/usr/share/$file" ] || fail "$file is missing"
done
run_test clients
# A client's author needs only the library.
! within dpkg-query -W | grep -E '^lib(curl|proxy|spdlog|ssl|xml2).*-dev\b' || fail "development files of others are there"

phase "removal"
quiet remove apt purge ahs libahs1 libahs-dev || fail "apt does not remove the packages"
! within sh -c 'ls /usr/bin/ahs /usr/lib/*/libahs*' 2>/dev/null || fail "something is left"
echo "All of it works in a clean root, after $SECONDS s."
