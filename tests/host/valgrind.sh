#!/bin/bash
# Makes selections of every kind under valgrind, to find leaks and invalid reads and writes. Any
# error fails. No error is suppressed.
# Usage: valgrind.sh BUILD-DIRECTORY [SELECTIONS]    (100 unless told; they come in rounds of 26)
set -euo pipefail

build=${1:?usage: $0 BUILD-DIRECTORY [SELECTIONS]}
selections=${2:-100}

if ! command -v valgrind >/dev/null; then
  echo "valgrind is not installed, and this test needs it: install the package valgrind" >&2
  exit 1
fi
# --fair-sched: valgrind runs one thread at a time; a spinning thread must not block the others.
exec valgrind --quiet --fair-sched=yes --leak-check=full --show-leak-kinds=definite,possible \
  --errors-for-leak-kinds=definite,possible --error-exitcode=1 --num-callers=30 \
  "$build/bin/many_selections" --warm-up 0 --runs "$selections"
