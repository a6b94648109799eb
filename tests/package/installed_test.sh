#!/bin/bash
# What `cmake --install` puts in place, used as the author of a client would: the names that the shared
# library shows, the CMake package with both libraries, pkg-config, C, and Python.
# Usage: installed_test.sh SOURCE-DIRECTORY BUILD-DIRECTORY C++-COMPILER C-COMPILER
set -euo pipefail
source=$1 build=$2 cxx=$3 cc=$4
scratch=$(mktemp -d)
gateways=
cleanup() {
  [ -z "$gateways" ] || kill "$gateways" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}

cmake --install "$build" --prefix "$scratch/usr" >"$scratch/install.log" || { cat "$scratch/install.log"; fail install; }
libdir=$(dirname "$(find "$scratch/usr" -name 'libahs.so')")

echo "== names"
public='ahs_[a-z_]+$|statusCodeName|(vtable for |typeinfo (name )?for )?(CHeadendSelection|ApiRunnable|ClientIfcBase|CClientLibrary|ProxyIfc|C[A-Z][a-z]*ProxyProvider|CProxyProvider|CStringUtils|CAppLog|HttpProbe)\b|SecureString<'
# only_public_names NM-OPTION LIBRARY
only_public_names() {
  nm "$1" -C --defined-only --extern-only "$2" | sed -n 's/^[0-9a-f]* [A-Zuvw] //p' | sort -u >"$scratch/names"
  grep -qx 'ahs_select' "$scratch/names" || fail "$2: the C interface is not visible"
  grep -q '^CHeadendSelection::CHeadendSelection(' "$scratch/names" || fail "$2: the selection is not visible"
  ! grep -vE "^($public)" "$scratch/names" || fail "$2: these names should stay inside"
}
only_public_names --dynamic "$libdir/libahs.so"
only_public_names --quiet "$libdir/libahs.a"

echo "== headers, each alone"
(cd "$scratch/usr/include/ahs" && find . -name '*.h') | while read -r header; do
  echo "#include \"$header\""  >"$scratch/header.cpp"
  "$cxx" -std=c++20 -Wall -Wextra -fsyntax-only -I "$scratch/usr/include/ahs" "$scratch/header.cpp" ||
    fail "$header does not compile alone"
done

echo "== gateways"
"$build/bin/ahs-gateways" --gateway 127.0.0.1:0 --gateway 127.0.0.1:0,delay=30 >"$scratch/gateways" &
gateways=$!
for ((i = 0; i < 600; ++i)); do
  ! grep -q '^ready$' "$scratch/gateways" || break
  sleep 0.1
done
mapfile -t addresses < <(sed -n 's/^gateway \([^ ]*\) .*/\1/p' "$scratch/gateways")
[ ${#addresses[@]} -eq 2 ] || fail "the gateways did not start"
mkdir "$scratch/profiles"
cat >"$scratch/profiles/test.xml" <<XML
<profile version="1">
  <preferences><preference name="EnableAutomaticServerSelection" value="true"/></preferences>
  <hosts><host name="a" address="${addresses[0]}"/><host name="b" address="${addresses[1]}"/></hosts>
</profile>
XML

# selects NAME COMMAND...: the command prints a status and a headend.
selects() {
  local name=$1 output
  shift
  output=$("$@") || fail "$name: status $?"
  echo "$name: $output"
  [[ $output == HEADENDSELECTION_ERROR_ADDED_TO_CACHE*127.0.0.1:* ]] || fail "$name selects nothing"
}

# built SOURCE BUILD: a project of its own that finds the installed library.
built() {
  {
    cmake -S "$1" -B "$2" -DCMAKE_PREFIX_PATH="$scratch/usr" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Debug
    cmake --build "$2"
  } >"$scratch/build.log" 2>&1 || { cat "$scratch/build.log"; fail "$1 does not build"; }
}

echo "== CMake package"
export LD_LIBRARY_PATH=$libdir
built "$source/examples/embed" "$scratch/embed"
selects embed "$scratch/embed/embed" "$scratch/profiles"
mkdir "$scratch/static-source"
sed 's/find_package(ahs 0.1 REQUIRED)/find_package(ahs 0.1 REQUIRED COMPONENTS static)/; s/ahs::ahs/ahs::static/' \
  "$source/examples/embed/CMakeLists.txt" >"$scratch/static-source/CMakeLists.txt"
cp "$source/examples/embed/embed.cpp" "$scratch/static-source"
built "$scratch/static-source" "$scratch/static"
selects static env -u LD_LIBRARY_PATH "$scratch/static/embed" "$scratch/profiles"

echo "== a component that there is not"
mkdir "$scratch/wrong"
sed 's/find_package(ahs 0.1 REQUIRED)/find_package(ahs 0.1 REQUIRED COMPONENTS statik)/' \
  "$source/examples/embed/CMakeLists.txt" >"$scratch/wrong/CMakeLists.txt"
! cmake -S "$scratch/wrong" -B "$scratch/wrong/build" -DCMAKE_PREFIX_PATH="$scratch/usr" \
  -DCMAKE_CXX_COMPILER="$cxx" >"$scratch/wrong.log" 2>&1 || fail "a component that there is not is found"
grep -q 'there is no component statik; the only one is static' <(tr -s '\n ' ' ' <"$scratch/wrong.log") || {
  cat "$scratch/wrong.log"
  fail "it is not said which components there are"
}

echo "== pkg-config and C"
export PKG_CONFIG_PATH=$libdir/pkgconfig
sed 's|"capi/ahs.h"|<ahs.h>|' "$source/tests/capi/c_client.c" >"$scratch/client.c"
# The flags are several words.
# shellcheck disable=SC2046
"$cc" -std=c11 -Wall -Wextra -Wpedantic -o "$scratch/client" "$scratch/client.c" \
  $(pkg-config --cflags --libs ahs) || fail "C does not link"
selects c "$scratch/client" "${addresses[@]}"

echo "== a client with names like those inside"
objects=()
for name in main names; do
  objects+=("$scratch/$name.o")
  "$cxx" -std=c++20 -Wall -Wextra -c -o "$scratch/$name.o" -I "$scratch/usr/include/ahs" \
    "$source/tests/package/client/$name.cpp" || fail "the client does not compile"
done
# shellcheck disable=SC2046
"$cxx" -o "$scratch/shared-client" "${objects[@]}" $(pkg-config --libs ahs) || fail "the shared library does not link"
# The archive takes what it is made of, and that from shared libraries.
# shellcheck disable=SC2046
"$cxx" -o "$scratch/static-client" "${objects[@]}" \
  "$libdir/libahs.a" $(pkg-config --libs $(pkg-config --print-requires-private ahs)) -lresolv -pthread || fail "the static library does not link"
selects shared-client "$scratch/shared-client" "$scratch/profiles"
selects static-client env -u LD_LIBRARY_PATH "$scratch/static-client" "$scratch/profiles"

echo "== Python"
selects python python3 "$source/examples/python/select_headend.py" "${addresses[@]}"

echo "== tool"
"$scratch/usr/bin/ahs" --version
share=$scratch/usr/share
for file in man/man1/ahs.1 man/man5/ahs-profile.5; do
  [ -s "$share/$file" ] || fail "there is no $file"
done
for file in bash-completion/completions/ahs zsh/site-functions/_ahs fish/vendor_completions.d/ahs.fish; do
  shell=${file%%[-/]*}
  "$scratch/usr/bin/ahs" completion "$shell" | cmp - "$share/$file" || fail "$file is not the tool's"
done
echo "All of it works."
