#!/bin/bash
# The binary interface must match its description in packaging: libahs.abi has the shared library's functions
# and structures, libahs.numbers the numbers that the C header names. --write renews the description. Ends with
# 77, skipped, on another system, and without libabigail's programs; with AHS_NO_SKIP in the environment the
# second is a failure.
# Usage: abi_test.sh SOURCE-DIRECTORY BUILD-DIRECTORY [--write]
set -euo pipefail
source=$(cd "$1" && pwd)
described=$source/packaging/libahs
# shellcheck disable=SC1091
if [ "$(. /etc/os-release && echo "$ID ${VERSION_ID:-}" "$(uname -m)")" != "debian 12 x86_64" ]; then
  echo "skipped: the description holds for Debian 12's compiler on x86-64"
  exit 77
fi
if ! command -v abidw >/dev/null || ! command -v abidiff >/dev/null; then
  echo "skipped: libabigail's programs are not installed"
  [ -z "${AHS_NO_SKIP:-}" ] || exit 1
  exit 77
fi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Types of other headers do not matter.
abidw --exported-interfaces-only --headers-dir "$source/include/ahs" --drop-private-types --no-corpus-path \
  --no-show-locs --no-comp-dir-path --no-elf-needed "$2/packaging/libahs.so" | sed "s|'$source/|'|" >"$scratch/abi"
grep -oE 'AHS_[A-Z_]+( = [0-9]+| \(\(ahs_status\)[0-9A-Fx]+\)| UINT32_MAX)' "$source/include/ahs/ahs.h" >"$scratch/numbers"
if [ "${3:-}" = --write ]; then
  cp "$scratch/abi" "$described.abi"
  cp "$scratch/numbers" "$described.numbers"
  exit
fi
status=0
abidiff "$described.abi" "$scratch/abi" || status=$?
diff "$described.numbers" "$scratch/numbers" || status=$?
[ "$status" -eq 0 ] || echo "The binary interface has changed. docs/versions.md says what may; make abi describes it anew." >&2
exit "$status"
