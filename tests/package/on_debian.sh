#!/bin/bash
# `make test` and the packages with their tests on another release of Debian, in a root made with
# debootstrap. ccache's files are this machine's, if it has them. Skips like clean_root_test.sh.
# Usage: on_debian.sh CODENAME SOURCE-DIRECTORY CACHE-DIRECTORY
set -euo pipefail
# shellcheck source=tests/package/debian_root.sh
. "$(dirname "$0")/debian_root.sh"
[ "$1" = --inside ] || in_own_mounts "$0" "$@"
shift
codename=$1 source=$(cd "$2" && pwd) cache=$3
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
scratch=$(mktemp -d -p "$cache")
root=$scratch/root
trap 'umount -q --recursive "$root"; rm -rf --one-file-system "$scratch"' EXIT

phase "base system of $codename"
mkdir "$root"
mount --bind "$root" "$root"
unpack_base "$cache"
quiet tools apt install git make ccache
git clone -q --no-hardlinks "$source" "$root/source"
mkdir "$root/outside"
for place in sys dev; do
  mount --rbind "/$place" "$root/$place"
done
mount -t tmpfs run "$root/run"
mkdir "$root/ccache"
if command -v ccache >/dev/null; then
  mkdir -p "$(ccache -k cache_dir)"
  mount --bind "$(ccache -k cache_dir)" "$root/ccache"
fi
mount --make-rprivate "$root"

# within_whole COMMAND...: like `within`, in a root that is the namespace's own: user namespaces and further
# mounts work there.
within_whole() {
  # The inner shell expands its own.
  # shellcheck disable=SC2016
  unshare --mount --propagation private bash -c '
    cd "$0" && pivot_root . outside && umount -l /outside && cd /source &&
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 CCACHE_DIR=/ccache "$@"' "$root" "$@"
}
phase "make test"
within_whole make test || fail "make test on $codename"
phase "packages"
quiet packages within_whole make deb || fail "make deb on $codename"
"$source/tests/package/clean_root_test.sh" "$source" "$cache" "$root/source/build/deb" "$codename"
echo "All of it works on $codename, after $SECONDS s."
