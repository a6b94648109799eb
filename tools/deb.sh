#!/bin/bash
# Builds the Debian packages into build/deb from what is committed or changed in the checkout, and
# checks them with lintian.
set -euo pipefail
cd "$(dirname "$0")/.."
target=$PWD/build/deb
rm -rf "$target"
mkdir -p "$target/ahs"
git ls-files -co --exclude-standard -z | tar -c --null -T - | tar -x -C "$target/ahs"
cd "$target/ahs"
# debhelper gives the build a home of its own, in which ccache would find nothing.
if command -v ccache >/dev/null; then
  CCACHE_DIR=${CCACHE_DIR:-$(ccache -k cache_dir)}
  export CCACHE_DIR
fi
dpkg-buildpackage -b -us -uc >../build.log 2>&1 || {
  tail -40 ../build.log
  exit 1
}
cd ..
rm -rf ahs
lintian --fail-on error --tag-display-limit 0 ./*.changes
ls -l ./*.deb
