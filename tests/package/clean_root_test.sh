#!/bin/bash
# The Debian packages on an otherwise empty machine: a root made with debootstrap, in which apt
# installs them with their dependencies, and their tests (debian/tests) run.
#
# Uses the mirrors, keys and proxies of this machine's apt. CACHE-DIRECTORY keeps the root without the
# packages, and apt's downloads, for a day. Mounts vanish with their namespace. Ends with 77, skipped,
# without root's rights or a mirror; with AHS_NO_SKIP in the environment that is a failure.
# Usage: clean_root_test.sh SOURCE-DIRECTORY CACHE-DIRECTORY PACKAGES-DIRECTORY
set -euo pipefail
fail() {
  echo "FAILED: $*" >&2
  exit 1
}
skip() {
  echo "skipped: $*"
  [ -z "${AHS_NO_SKIP:-}" ] || fail "nothing is skipped here"
  exit 77
}
if [ "$1" != --inside ]; then
  [ "$(id -u)" -eq 0 ] || skip "a root is made by root alone"
  unshare --mount true 2>/dev/null || skip "no namespace for mounts can be made here"
  exec unshare --mount -- "$0" --inside "$@"
fi
shift
source=$1 cache=$2 packages=$3
scratch=$(mktemp -d)
root=$scratch/root
cleanup() {
  for place in proc var/cache/apt/archives .; do
    umount -q "$root/$place" 2>/dev/null || true
  done
  rm -rf --one-file-system "$scratch"
}
trap cleanup EXIT
phase() { echo "== $* (after $SECONDS s)"; }

# quiet NAME COMMAND...: shows the command's output if it fails.
quiet() {
  local log=$scratch/$1.log status=0
  shift
  "$@" >"$log" 2>&1 </dev/null || status=$?
  [ "$status" -eq 0 ] || tail -n 30 "$log"
  return "$status"
}

within() { chroot "$root" "$@"; } # within COMMAND...: in the root
apt() { within env DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 apt-get -q -y --no-install-recommends "$@"; }

for program in debootstrap dpkg-buildpackage dh lintian; do
  command -v "$program" >/dev/null || skip "$program is not installed"
done
git -C "$source" rev-parse 2>/dev/null || skip "the sources are no checkout of git"
codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
# repositories FORMAT: one line for each Debian repository of this machine's apt.
repositories() { apt-get indextargets --format "$1" 'Created-By: Packages' 'Origin: Debian' | sort -u; }
mirror=$(repositories "\$(CODENAME) \$(SITE)" | sed -n "s/^$codename //p" | head -n 1)
[ -n "$mirror" ] || skip "apt of this machine knows no mirror of $codename (is apt-get update due?)"

make_base() {
  local keys=/usr/share/keyrings/debian-archive-keyring.gpg
  quiet debootstrap debootstrap --variant=minbase --keyring="$keys" "$codename" "$root" "$mirror" || return 1
  repositories "deb \$(REPO_URI) \$(RELEASE) \$(COMPONENT)" >"$root/etc/apt/sources.list"
  # A private mirror may have its own keys.
  find /etc/apt/trusted.gpg.d /etc/apt/keyrings -type f -exec cp -t "$root/etc/apt/trusted.gpg.d" {} + 2>/dev/null || true
  {
    apt-config dump Acquire
    echo 'APT::Sandbox::User "root";'
  } >"$root/etc/apt/apt.conf.d/90machine"
  # The root is temporary: nothing must survive a power failure.
  echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"
  printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
  chmod 755 "$root/usr/sbin/policy-rc.d"
  cp -L /etc/resolv.conf /etc/hosts "$root/etc"
  quiet update apt update || return 1
}

phase "base system"
mkdir "$root"
# What is not written to a disk need not be removed from it. The root takes up to 1 GiB.
if [ "$(sed -n 's/^MemAvailable: *\([0-9]*\) kB/\1/p' /proc/meminfo)" -gt $((4 * 1024 * 1024)) ]; then
  mount -t tmpfs -o size=2g,mode=755 clean-root "$root"
fi
today=$cache/$(date +%F)
mkdir -p "$today/archives"
find "$cache" -mindepth 1 -maxdepth 1 -name '2*' ! -path "$today" -exec rm -rf {} +
if [ ! -e "$today/base.tar" ]; then
  make_base || skip "the mirror of this machine gives no base system"
  tar -C "$root" --one-file-system -cf "$today/base.tar.new" .
  mv "$today/base.tar.new" "$today/base.tar"
else
  tar -C "$root" -xf "$today/base.tar"
fi
mount -t proc proc "$root/proc"
mount --bind "$today/archives" "$root/var/cache/apt/archives"

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
