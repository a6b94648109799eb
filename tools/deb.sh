#!/bin/bash
# Builds the Debian packages from the checkout, with uncommitted changes, and checks them with
# lintian.
# Usage: deb.sh [TARGET-DIRECTORY (build/deb)]
set -euo pipefail
cd "$(dirname "$0")/.."
target=${1:-build/deb}
rm -rf "$target"
mkdir -p "$target/ahs"
target=$(cd "$target" && pwd)
# git still lists files that are deleted but not committed.
git ls-files -co --exclude-standard -z |
  while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
  tar -c --null -T - | tar -x -C "$target/ahs"
cd "$target/ahs"
# debhelper sets another HOME, where ccache would find nothing.
if command -v ccache >/dev/null; then
  CCACHE_DIR=${CCACHE_DIR:-$(ccache -k cache_dir)}
  export CCACHE_DIR
fi
echo "Building the packages, which takes minutes; the log is $(dirname "$PWD")/build.log"
dpkg-buildpackage -b -us -uc >../build.log 2>&1 || {
  tail -40 ../build.log
  exit 1
}
cd ..
rm -rf ahs
lintian --allow-root --fail-on error --tag-display-limit 0 ./*.changes
ls -l ./*.deb
