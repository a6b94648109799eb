#!/bin/bash
# Runs the fuzzers of one build directory, each for FUZZ_SECONDS (600), FUZZ_JOBS (2) at a time, and
# prints a line for each. A fuzzer stops at its first finding, in BUILD/artifacts; new texts of the
# corpus are in BUILD/corpus. FUZZ_TARGETS names the fuzzers to run; unset, all run. Fails if there
# is a finding or a fuzzer did not run.
set -euo pipefail

tree=$(cd "$(dirname "$0")/.." && pwd)
seconds=${FUZZ_SECONDS:-600}
# Limits for one text. Most take less than a millisecond; the time allows for a busy machine, the
# memory for AddressSanitizer's own.
most_seconds=5
most_mebibytes=2048
# A fuzzer's time for ending, beyond its own.
grace_seconds=60
# Longest text: the parsers' bounds are far higher, but unit tests cover them.
most_bytes=8192

value() { # value LOG NAME: one of the fuzzer's final figures
  sed -nE "s/^stat::$2: +([0-9]+).*/\1/p" "$1" | tail -n 1
}

coverage() { # coverage LOG first|last: code edges reached with the corpus, and at the end
  local lines
  lines=$(sed -nE 's/^#[0-9]+\t(INITED|NEW|REDUCE|pulse|DONE) +cov: ([0-9]+).*/\2/p' "$1")
  if [ "$2" = first ]; then head -n 1 <<<"$lines"; else tail -n 1 <<<"$lines"; fi
}

fuzz_one() { # fuzz_one BUILD TARGET
  local build=$1 target=$2 log=$1/logs/$2.log findings status=0
  local -a options=(-max_total_time="$seconds" -timeout="$most_seconds" -max_len="$most_bytes"
    -rss_limit_mb="$most_mebibytes" -print_final_stats=1
    -artifact_prefix="$build/artifacts/$target-")
  [ ! -e "$tree/tests/fuzz/$target.dict" ] || options+=(-dict="$tree/tests/fuzz/$target.dict")
  mkdir -p "$build/corpus/$target"
  nice timeout -k 5 $((seconds + grace_seconds)) "$build/bin/${target}_fuzzer" "${options[@]}" \
    "$build/corpus/$target" "$tree/tests/fuzz/corpus/$target" >"$log" 2>&1 || status=$?
  findings=$(grep -c 'Test unit written to' "$log" || true)
  local first last
  first=$(coverage "$log" first)
  last=$(coverage "$log" last)
  printf '%-12s %9s executions %7s/s   coverage %5s (%s new)   %s findings\n' "$target" \
    "$(value "$log" number_of_executed_units)" "$(value "$log" average_exec_per_sec)" \
    "${last:-?}" "+$((${last:-0} - ${first:-0}))" "$findings"
  if [ "$status" -ne 0 ]; then
    grep -E 'does not hold|ERROR|SUMMARY|Test unit written to|runtime error' "$log" || tail -n 5 "$log"
    return 1
  fi
}

if [ "${1:-}" = --one ]; then
  fuzz_one "$2" "$3"
  exit
fi

build=${1:?usage: $0 BUILD-DIRECTORY}
build=$(cd "$build" && pwd)
mkdir -p "$build/artifacts" "$build/logs"

targets=()
for corpus in "$tree"/tests/fuzz/corpus/*/; do
  targets+=("$(basename "$corpus")")
done
[ -z "${FUZZ_TARGETS:-}" ] || read -ra targets <<<"$FUZZ_TARGETS"

# Work in memory if possible: a disk would slow the fuzzers down.
scratch=$(mktemp -d /dev/shm/ahs-fuzz-XXXXXX 2>/dev/null || mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TMPDIR=$scratch FUZZ_SECONDS=$seconds UBSAN_OPTIONS=print_stacktrace=1

printf '%s\n' "${targets[@]}" | xargs -P "${FUZZ_JOBS:-2}" -I '{}' "$0" --one "$build" '{}' || {
  echo "The logs are in $build/logs, the texts in $build/artifacts"
  exit 1
}
