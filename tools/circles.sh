#!/bin/bash
# Finds circles among the project's includes, of files and of rooms. Here a header and the source of
# its name are one file, and a directory is a room. Prints each include in a circle; fails if there
# is one.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t sources < <(git ls-files 'include/*' 'vpn/*' 'capi/*' 'cli/*' | grep -E '\.(h|hpp|cpp|c)$')

awk '
  function file_of(path) { sub(/\.(h|hpp|cpp|c)$/, "", path); return path }
  function room_of(path) { sub(/\/[^\/]*$/, "", path); return path }
  function add(kind, from, to,    pair) {
    pair = kind ": " from " -> " kind ": " to
    if (from != to && !(pair in where)) {
      where[pair] = FILENAME ":" FNR
      ends[kind ": " from] = ends[kind ": " from] "\n" kind ": " to
    }
  }
  function leads(from, to,    seen, todo, size, next_ones, i) {
    todo[size = 1] = from
    while (size > 0) {
      for (i = split(ends[todo[size--]], next_ones, "\n"); i > 1; --i) {
        if (next_ones[i] == to) return 1
        if (!(next_ones[i] in seen)) { seen[next_ones[i]] = 1; todo[++size] = next_ones[i] }
      }
    }
    return 0
  }
  BEGIN { for (i = 1; i < ARGC; ++i) ours[ARGV[i]] = 1 }
  /^#include "/ {
    split($0, parts, "\"")
    to = parts[2] in ours ? parts[2] : "include/" parts[2]
    if (to in ours) {
      add("file", file_of(FILENAME), file_of(to))
      add("room", room_of(FILENAME), room_of(to))
    }
  }
  END {
    for (pair in where) {
      split(pair, both, " -> ")
      if (leads(both[2], both[1])) {
        print pair " (" where[pair] ")" | "sort"
        found = 1
      }
    }
    close("sort")
    exit found
  }' "${sources[@]}"
