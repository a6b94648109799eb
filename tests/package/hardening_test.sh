#!/bin/bash
# Every program and library that is installed is hardened: position-independent, all relocations read-only from
# the start, no executable stack, no search path of its own; and what we compile has canaries, checked calls of
# the C library and targets for indirect jumps. Uses readelf and objdump.
# Usage: hardening_test.sh BUILD-DIRECTORY | DIRECTORY-OF-INSTALLED-FILES
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
installed=$1
if [ -e "$1/CMakeCache.txt" ]; then
  installed=$scratch/usr
  cmake --install "$1" --prefix "$installed" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
fi

faults=0
# wants FILE WORDS FACT PATTERN: a line of the facts has the pattern. lacks: none has.
wants() { grep -qE -- "$4" "$scratch/$3" || fault "$1" "$2"; }
lacks() { ! grep -qE -- "$4" "$scratch/$3" || fault "$1" "$2"; }
fault() {
  echo "FAILED: ${1#"$installed"/}: $2"
  faults=$((faults + 1))
}

count=0
while IFS= read -r file; do
  [ "$(head -c 4 "$file" | tail -c 3)" = ELF ] || continue
  count=$((count + 1))
  readelf -Wd "$file" >"$scratch/dynamic"
  readelf -Wl "$file" >"$scratch/segments"
  readelf -W --dyn-syms "$file" >"$scratch/symbols"
  objdump -d "$file" | grep -c endbr64 >"$scratch/landings" || true
  wants "$file" "is not position-independent" segments 'Elf file type is DYN'
  case $file in
    *.so*) ;;
    *) wants "$file" "is not linked as a position-independent program" dynamic 'FLAGS_1.*PIE' ;;
  esac
  wants "$file" "keeps relocations writable" segments 'GNU_RELRO'
  wants "$file" "binds functions late" dynamic 'FLAGS.*NOW'
  wants "$file" "does not say what its stack is" segments 'GNU_STACK.* RW '
  lacks "$file" "has a segment to write and execute" segments ' RWE '
  lacks "$file" "looks for libraries in places of its own" dynamic 'R(UN)?PATH'
  lacks "$file" "has relocations in its code" dynamic TEXTREL
  # The compiler's own pieces have three.
  landings=$(cat "$scratch/landings")
  [ "$landings" -gt 10 ] || fault "$file" "has no targets for indirect jumps"
  # A small program may have nothing to guard.
  case $file in *ahs-proxy) continue ;; esac
  wants "$file" "has no canaries" symbols '__stack_chk_fail'
  # A call is checked where a buffer's size is known, if only at run time.
  wants "$file" "does not check the C library's calls" symbols '__[a-z]+_chk@'
done < <(find "$installed" -type f)
[ "$count" -ge 2 ] || fault "$installed" "has $count programs and libraries"
[ "$faults" -eq 0 ] && echo "$count files are hardened."
