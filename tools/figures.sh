#!/bin/bash
# Prints sizes: lines by room, the cache's files, tests to product, words of the docs; circles of includes; the forms
# of an address; the longest functions. Counts files that git knows, with blank lines and comments, which readers see
# too.
# Usage: figures.sh [FUNCTIONS]   how many of the longest functions are listed (10)
set -euo pipefail
cd "$(dirname "$0")/.."
functions=${1:-10}

lines() { git ls-files -- "$@" | xargs -r -d '\n' cat | wc -l; } # lines PATHSPEC...

echo "Lines by room"
product=0
for room in vpn/include vpn/Common/Trust vpn/Common/Logging vpn/Common/Utility vpn/Common/IP ':(glob)vpn/Api/*' \
  vpn/Api/schema vpn/Api/AHS vpn/CMakeLists.txt helper capi include ':(glob)cli/*' $(git ls-files 'cli/*/*' | cut -d/ -f1,2 | sort -u); do
  count=$(lines "$room")
  product=$((product + count))
  printf '%7d  %s\n' "$count" "${room#:(glob)}"
done
tests=$(lines tests)
printf '%7d  product\n%7d  tests (%s to one line of product)\n' "$product" "$tests" \
  "$(awk "BEGIN { printf \"%.2f\", $tests / $product }")"

echo "Files of the cache"
cache=(vpn/Api/AHS/{SelectionCache,SelectionFiles,CacheEntry,ResolverPlace}.{h,cpp})
wc -l "${cache[@]}" | sed 's/^/ /'

echo "Words of the docs"
# Generated lists do not count: tables below a marker, and the benchmarks' figures.
# shellcheck disable=SC2016
words=$(git ls-files ':(glob)docs/*.md' | xargs awk '
  FNR == 1 || /^<!-- end of figures -->/ { written = 0 }
  /^<!-- figures/ { written = 2 }
  /^<!-- (options|exit statuses) -->/ { written = 1; next }
  written == 1 && !/^\|/ { written = 0 }
  !written { for (i = 1; i <= NF; ++i) words += $i ~ /[[:alnum:]]/ }  # bars and dashes are none
  END { print words }')
printf '%7d  docs/*.md\n' "$words"

echo "Circles of includes"
tools/circles.sh || true

echo "Forms of a headend's address, from profile to callback"
form() { # form MEANING FILE DECLARATION: fails when the declaration has moved
  printf '%7s  %s, %s\n' "" "$1" "$(git grep -n --fixed-strings "$3" -- "$2" | head -n 1 | cut -d: -f1,2 | grep .)"
}
form "the profile's text" vpn/Api/ProfileFile.h "std::string address"
form "URL" vpn/Api/HostProfile.h "const URL& getUrl()"
form "place: host and port, of a probe" vpn/Api/AHS/Candidates.h "using Place"
form "headend: host, or host:port, as delivered" vpn/Api/AHS/HeadendRTT.h "std::string GetHeadend()"
echo "Parses of an address on that way"
git grep -nE '\bURL( url)?\((reached|address|SelectionRules::addressOf)' -- vpn/Api | sed 's/^/         /'

echo "Longest functions"
# shellcheck disable=SC2016 # awk expands it
git ls-files 'vpn/*.cpp' 'capi/*.cpp' 'cli/*.cpp' | xargs awk '
  FNR == 1 { start = 0 }
  # clang-format puts the end of a function at the column of its signature. Nothing else that begins
  # like a signature ends there.
  /^[A-Za-z_~].*\) *(const|noexcept|override| )*\{$/ || /^ {4,}.*\) *(const|noexcept)* *\{$/ && wrapped { start = FNR; name = wrapped ? head : $0; sub(/\(.*/, "", name) }
  /^[A-Za-z_~][^;{}]*[(,]?$/ && !/^(namespace|class|struct|enum|public|private|protected)/ { wrapped = 1; head = $0 }
  /^\}/ { if (start) printf "%7d  %s:%d  %s\n", FNR - start + 1, FILENAME, start, name; start = 0; wrapped = 0 }
  /^$/ { wrapped = 0 }
' | sort -rn | head -n "$functions"
