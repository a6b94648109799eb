#!/bin/bash
# Formatting, clang's warnings with the lock annotations, clang-tidy, and the shell scripts. Prints
# faults and fails if there is one. With `deep` clang's analyzer, which takes most of the time, follows
# every path.
# usage: lint.sh [JOBS [deep]]
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${1:-$(nproc)}
mkdir -p build

mapfile -t sources < <(git ls-files '*.cpp' '*.hpp' '*.h' '*.c')
mapfile -t scripts < <(git ls-files '*.sh' .ci/run debian/tests/command debian/tests/clients)

echo "clang-format: ${#sources[@]} files"
clang-format --dry-run --Werror "${sources[@]}"

echo "shellcheck: ${#scripts[@]} files"
shellcheck "${scripts[@]}"

echo "floors: a room includes only rooms on its own floor or below"
above() { # above ROOM PATTERN: the includes of a room that reach a floor above it
  git grep -nE "^#include \"($2)" -- "$1" || true
}
reached=$(
  above vpn/include 'vpn/Common|vpn/Api|capi|cli|simulator'
  above vpn/Common 'vpn/Api|capi|cli|simulator'
  above ':(glob)vpn/Api/*' 'vpn/Api/AHS|capi|cli|simulator'
  above vpn/Api/AHS 'capi|cli|simulator'
  above capi 'cli|simulator'
  above include 'vpn|capi|cli|simulator'
)
if [ -n "$reached" ]; then
  printf '%s\n' "$reached"
  exit 1
fi

echo "environment: one source reads it"
! git grep -nE '\bgetenv *\(' -- vpn helper capi cli ':!vpn/Common/Trust/Environment.cpp' || exit 1

echo "circles: no file and no room includes what includes it"
tools/circles.sh

echo "clang: warnings and lock annotations"
cmake --preset clang >build/clang-configure.log 2>&1 || { cat build/clang-configure.log; exit 1; }
cmake --build --preset clang -j "$jobs"

echo "clang-tidy"
paths=()
if [ "${2:-}" != deep ]; then
  for argument in -Xclang -analyzer-config -Xclang mode=shallow; do
    paths+=("--extra-arg=$argument")
  done
fi
mapfile -t translation_units < <(git ls-files 'vpn/*.cpp' 'helper/*.cpp' 'capi/*.cpp' 'cli/*.cpp' 'simulator/*.cpp')
printf '%s\n' "${translation_units[@]}" |
  xargs -P "$jobs" -n 4 clang-tidy -p build/clang --quiet --warnings-as-errors='*' "${paths[@]}" \
    2>build/clang-tidy.log ||
  { echo "clang-tidy found something"; exit 1; }
