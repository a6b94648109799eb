#!/bin/bash
# Proves that the tests guard the product's promises. Each patch beside this script, a mutant, breaks one
# promise; the tests that it names must fail. Takes the mutants from this directory, and builds the
# checked-out commit in a worktree below DIR (build/mutants). Keeps results there, so that an interrupted run
# continues. Runs JOBS compilers at once; a test that takes longer than AHS_MUTANT_SECONDS (60) fails.
# usage: run.sh [--list] [--fresh] [--build DIR] [NAME...]
set -euo pipefail
patches=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$patches/../.." && pwd)
build=$source/build/mutants
list=no
fresh=no
names=()
while [ $# -gt 0 ]; do
  case $1 in
    --list) list=yes ;;
    --fresh) fresh=yes ;;
    --build) shift; build=$(mkdir -p "$1" && cd "$1" && pwd) ;;
    -*) sed -n 's/^# usage: /usage: /p' "$0" >&2; exit 2 ;;
    *) names+=("$(basename "$1" .patch)") ;;
  esac
  shift
done
if [ ${#names[@]} -eq 0 ]; then
  for patch in "$patches"/*.patch; do
    names+=("$(basename "$patch" .patch)")
  done
fi

field() { # field NAME KEY: what a mutant says behind KEY
  sed -n "/^--- /q; s/^$2: //p" "$patches/$1.patch"
}
if [ $list = yes ]; then
  for name in "${names[@]}"; do
    printf '%-40s %s\n' "$name" "$(field "$name" Promise)"
  done
  exit 0
fi

tree=$build/tree
results=$build/results
commit=$(git -C "$source" rev-parse HEAD)
# What is built and tested, whatever the commit's mutants and documents are.
content=$(git -C "$source" ls-tree -r "$commit" -- vpn helper capi cli include simulator tests CMakeLists.txt CMakePresets.json |
  grep -v '	tests/mutants/' | sha256sum | cut -d' ' -f1)
seconds_for_tests=${AHS_MUTANT_SECONDS:-60}
# ccache has what another checkout compiled.
export CCACHE_BASEDIR=$tree CCACHE_NOHASHDIR=1
export TSAN_OPTIONS=suppressions=$tree/tests/support/thread-sanitizer.supp
ulimit -c 0
[ $fresh = no ] || rm -rf "$results"
mkdir -p "$results"
git -C "$source" worktree prune
if [ ! -e "$tree/.git" ]; then
  git -C "$source" worktree add --quiet --detach "$tree" "$commit"
fi
restore() { git -C "$tree" checkout --quiet --force --detach "$commit"; }
restore
trap restore EXIT

build_target() { # build_target PRESET TARGET LOG
  if [ ! -e "$tree/build/$1/build.ninja" ]; then
    (cd "$tree" && cmake --preset "$1") >"$3" 2>&1 || return 1
  fi
  cmake --build "$tree/build/$1" -j "${JOBS:-$(nproc)}" --target "$2" >"$3" 2>&1
}

program() { find "$tree/build/$1/bin" -name "$2"; } # program PRESET TARGET

run_tests() { # run_tests PRESET TARGET FILTER SECONDS LOG
  ( # what it dies of is for the log too
    cd "$tree/build/$1" || exit
    timeout -k 5 "$4" "$(program "$1" "$2")" --gtest_filter="$3" --gtest_brief=1 --gtest_fail_fast
    exit $?
  ) >"$5" 2>&1
}

preset_of() { # preset_of NAME
  local preset
  preset=$(field "$1" Preset)
  echo "${preset:-release}"
}

# A test that fails without a mutant proves nothing: first all named tests must pass.
declare -A sound
passes_without_mutants() { # passes_without_mutants PRESET TARGET LOG
  if [ -z "${sound[$1/$2]:-}" ]; then
    local filters="" name
    for name in "${names[@]}"; do
      if [ "$(preset_of "$name")/$(field "$name" Target)" = "$1/$2" ]; then
        filters+=${filters:+:}$(field "$name" Filter)
      fi
    done
    sound[$1/$2]=no
    if build_target "$1" "$2" "$3" && run_tests "$1" "$2" "$filters" 600 "$3"; then
      sound[$1/$2]=yes
    fi
  fi
  [ "${sound[$1/$2]}" = yes ]
}

verdict=
try() { # try NAME: what becomes of a mutant, as the verdict
  local preset target filter log=$results/$1.log
  preset=$(preset_of "$1")
  target=$(field "$1" Target)
  filter=$(field "$1" Filter)
  if ! git -C "$tree" apply --check "$patches/$1.patch" 2>"$log"; then
    verdict="does not apply"
  elif ! passes_without_mutants "$preset" "$target" "$log"; then
    verdict="has tests that fall without it"
  elif ! "$(program "$preset" "$target")" --gtest_filter="$filter" --gtest_list_tests | grep '^  ' >/dev/null; then
    verdict="names no test"
  else
    git -C "$tree" apply "$patches/$1.patch"
    if ! build_target "$preset" "$target" "$log"; then
      verdict="does not compile"
    elif run_tests "$preset" "$target" "$filter" "$seconds_for_tests" "$log"; then
      verdict="SURVIVES"
    else
      verdict="falls"
    fi
    restore
  fi
}

declare -A count
for name in "${names[@]}"; do
  key="$(sha256sum <"$patches/$name.patch" | cut -d' ' -f1) $content"
  result=$results/$name
  if [ "$(sed -n 1p "$result" 2>/dev/null)" != "$key" ]; then
    started=$SECONDS
    try "$name"
    case $verdict in
      falls | SURVIVES) printf '%s\n%s\n%s s\n' "$key" "$verdict" $((SECONDS - started)) >"$result" ;;
    esac
  else
    verdict=$(sed -n 2p "$result")
  fi
  count[$verdict]=$((${count[$verdict]:-0} + 1))
  printf '%-44s %s\n' "$name" "$verdict"
done

echo
echo "${#names[@]} mutants, commit ${commit:0:12}"
for verdict in "${!count[@]}"; do
  printf '%5d %s\n' "${count[$verdict]}" "$verdict"
done
echo "Logs and results: $results"
[ "${count[falls]:-0}" -eq ${#names[@]} ]
