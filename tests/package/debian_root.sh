# Functions of a root of Debian, for scripts that set `root`, `scratch` and `codename`. It is made with
# debootstrap, with the mirrors, keys and proxies of this machine's apt. Sourced.
# shellcheck shell=bash disable=SC2154
fail() {
  echo "FAILED: $*" >&2
  exit 1
}
skip() {
  echo "skipped: $*"
  [ -z "${AHS_NO_SKIP:-}" ] || fail "nothing is skipped here"
  exit 77
}
# in_own_mounts SCRIPT ARGUMENT...: runs the script again with --inside, in a namespace of mounts.
in_own_mounts() {
  [ "$(id -u)" -eq 0 ] || skip "a root is made by root alone"
  unshare --mount true 2>/dev/null || skip "no namespace for mounts can be made here"
  exec unshare --mount -- "$1" --inside "${@:2}"
}
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

# repositories FORMAT: one line for each Debian repository of this machine's apt, with the root's release.
repositories() {
  apt-get indextargets --format "$1" 'Created-By: Packages' 'Origin: Debian' |
    sed "s/\b$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)/$codename/" | sort -u
}

make_base() {
  local keys=/usr/share/keyrings/debian-archive-keyring.gpg mirror
  mirror=$(repositories "\$(CODENAME) \$(SITE)" | sed -n "s/^$codename //p" | head -n 1)
  [ -n "$mirror" ] || skip "apt of this machine knows no mirror of Debian (is apt-get update due?)"
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

# unpack_base CACHE-DIRECTORY: fills the root, from a file of today if there is one.
unpack_base() {
  local today
  today=$1/$(date +%F)
  mkdir -p "$today/archives-$codename"
  find "$1" -mindepth 1 -maxdepth 1 -name '2*' ! -path "$today" -exec rm -rf {} +
  if [ ! -e "$today/$codename.tar" ]; then
    make_base || skip "the mirror of this machine gives no base system"
    tar -C "$root" --one-file-system -cf "$today/$codename.tar.new" .
    mv "$today/$codename.tar.new" "$today/$codename.tar"
  else
    tar -C "$root" -xf "$today/$codename.tar"
  fi
  mount -t proc proc "$root/proc"
  mount --bind "$today/archives-$codename" "$root/var/cache/apt/archives"
}
