#!/bin/bash
# Formatting, clang's warnings with the lock annotations, clang-tidy, and the shell scripts. Prints
# what is wrong and ends with status 1 if anything is.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${1:-$(nproc)}

mapfile -t sources < <(git ls-files '*.cpp' '*.h')
mapfile -t scripts < <(git ls-files '*.sh' .ci/run)

echo "clang-format: ${#sources[@]} files"
clang-format-14 --dry-run --Werror "${sources[@]}"

echo "shellcheck: ${#scripts[@]} files"
shellcheck "${scripts[@]}"

echo "clang: warnings and lock annotations"
cmake --preset clang >build/clang-configure.log 2>&1 || { cat build/clang-configure.log; exit 1; }
cmake --build --preset clang -j "$jobs"

echo "clang-tidy"
mapfile -t translation_units < <(git ls-files 'vpn/*.cpp' 'cli/*.cpp' 'simulator/*.cpp')
printf '%s\n' "${translation_units[@]}" |
  xargs -P "$jobs" -n 4 clang-tidy-14 -p build/clang --quiet --warnings-as-errors='*' 2>build/clang-tidy.log ||
  { echo "clang-tidy found something"; exit 1; }
