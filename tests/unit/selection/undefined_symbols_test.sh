#!/bin/bash
# A selection run needs exactly those symbols of the client library that the porting list names, and
# the porting guide must explain all of them. Besides, the objects may use only the C++ runtime.
#
# usage: undefined_symbols_test.sh LIBRARY LIST GUIDE NM AR
set -euo pipefail

library=$(realpath "$1")
list=$(realpath "$2")
guide=$(realpath "$3")
nm=$4
ar=$5

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

"$ar" t "$library" | grep -E '^(HeadendSelection.*|SelectionRules\.cpp)\.o$' > members || {
  echo "no member HeadendSelection*.o or SelectionRules.cpp.o in $library"
  exit 1
}
xargs "$ar" x "$library" < members

# Demangled names in the words of the source.
readable() {
  sed -E -e 's/\[abi:cxx11\]//g' \
    -e 's/std::(__cxx11|__1)::basic_string<char, std::char_traits<char>, std::allocator<char> ?>/std::string/g' \
    -e 's/std::vector<([A-Za-z:_]+), std::allocator<[A-Za-z:_]+ ?> ?>/std::vector<\1>/g'
}

# The runtime: the standard library, language support, and a compiler's implicit calls.
runtime='^(std::|(vtable|VTT|typeinfo|guard variable) for (std::|__cxxabiv1::)'
runtime+='|operator (new|delete)(\[\])?\(|__cxa_|__gxx_|_Unwind_|__stack_chk_|_GLOBAL_OFFSET_TABLE_$|__dso_handle$'
runtime+='|(mem(cpy|move|cmp|set|chr)|bcmp|strlen)$)'

xargs "$nm" -C --undefined-only < members | sed -nE 's/^ +[Uwv] //p' | readable | sort -u > undefined
xargs "$nm" -C --defined-only < members | sed -nE 's/^[0-9a-f]+ [A-Za-z] //p' | readable | sort -u > defined
comm -23 undefined defined | grep -vE "$runtime" | sort -u > needed || true
sed -E -e 's/#.*//' -e 's/ +$//' "$list" | grep -v '^$' | sort > listed || true

status=0
if ! diff <(sort -u listed) needed > difference; then
  echo "The symbols that HeadendSelection*.o and SelectionRules leave undefined differ from $list"
  echo "(< listed but not needed, > needed but not listed):"
  grep '^[<>]' difference
  status=1
fi
# The guide must explain "CThread::Start()" as `CThread::Start`.
while read -r symbol; do
  name=$(sed -E -e 's/^(vtable|typeinfo) for //' -e 's/\(.*//' <<< "$symbol")
  if ! grep -qF "$name" "$guide"; then
    echo "not explained in $guide: $name"
    status=1
  fi
done < listed
exit $status
