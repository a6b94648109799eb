#!/bin/bash
# The result of `cmake --install`, used like a client's author would: the library's visible names, its headers,
# CMake, pkg-config, C, C++, Python, and the command.
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

echo "== files"
diff <(printf 'ahs/%s\n' ahs.h ahs.hpp) <(cd "$scratch/usr/include" && find . -type f -printf '%P\n' | sort) ||
  fail "other headers are installed than two"
diff <(printf 'libahs.so%s\n' '' .1 .1.0.0) <(cd "$libdir" && find . -name 'libahs*' -printf '%P\n' | sort) ||
  fail "other libraries are installed than one"

[ -x "$libdir/ahs1/ahs-proxy" ] || fail "the helper that asks libproxy is not installed"
! readelf -d "$libdir/libahs.so" "$scratch/usr/bin/ahs" | grep libproxy || fail "libproxy is loaded into clients"

echo "== names"
diff <(sed -nE 's/^[a-z].*\b(ahs_[a-z_]+)\(.*/\1@@AHS_1/p' "$scratch/usr/include/ahs/ahs.h" | sort) \
  <(nm --dynamic --defined-only "$libdir/libahs.so" | sed -n 's/.* T //p' | sort) ||
  fail "the library shows other functions than the header declares"
nm --dynamic --defined-only "$libdir/libahs.so" | grep -v ' T ahs_' | grep -vx '0* A AHS_1' && fail "these names should stay inside"

echo "== headers, each alone"
warnings=(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -fsyntax-only -I "$scratch/usr/include")
echo '#include <ahs/ahs.h>' | tee "$scratch/header.c" >"$scratch/header.cpp"
echo '#include <ahs/ahs.hpp>' >"$scratch/header++.cpp"
for compiler in gcc clang; do
  "$compiler" -std=c11 "${warnings[@]}" "$scratch/header.c" || fail "$compiler does not take ahs.h"
done
for compiler in g++ clang++; do
  for header in "$scratch"/header*.cpp; do
    "$compiler" -std=c++20 "${warnings[@]}" "$header" || fail "$compiler does not take: $(cat "$header")"
  done
done

export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig CMAKE_PREFIX_PATH=$scratch/usr CC=$cc CXX=$cxx
echo "== packages' tests"
for test in command clients; do
  mkdir "$scratch/$test"
  (cd "$source" && PATH="$scratch/usr/bin:$PATH" AUTOPKGTEST_TMP=$scratch/$test debian/tests/$test) \
    >"$scratch/log" 2>&1 || { cat "$scratch/log"; fail "$test"; }
done

exec {from_gateways}< <(exec "$source/debian/tests/gateways" 0 0)
gateways=$!
read -r -a addresses <&"$from_gateways"
# selects NAME COMMAND...: the command prints a headend, perhaps among other output.
selects() {
  local output
  output=$("${@:2}") || fail "$1: status $?"
  echo "$1: $output"
  [[ $output == *127.0.0.1:* ]] || fail "$1 selects nothing"
}

echo "== a project in C alone"
[ "$(pkg-config --print-requires --print-requires-private ahs)" = "" ] || fail "pkg-config asks for other libraries"
mkdir "$scratch/c"
cp "$source/tests/capi/c_client.c" "$scratch/c"
cat >"$scratch/c/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(client LANGUAGES C)
find_package(ahs 1 REQUIRED)
add_executable(client c_client.c)
target_link_libraries(client PRIVATE ahs::ahs)
CMAKE
{ cmake -S "$scratch/c" -B "$scratch/c/build" && cmake --build "$scratch/c/build"; } >"$scratch/log" 2>&1 || {
  cat "$scratch/log"
  fail "C does not build"
}
selects c "$scratch/c/build/client" "${addresses[@]}"
sed -i 's/ahs 1/ahs 2/' "$scratch/c/CMakeLists.txt"
! cmake -S "$scratch/c" -B "$scratch/c/build" >/dev/null 2>&1 || fail "a version that there is not is found"

echo "== a client with libraries like those inside"
mkdir "$scratch/profiles"
cat >"$scratch/profiles/test.xml" <<XML
<profile version="1">
  <preferences><preference name="EnableAutomaticServerSelection" value="true"/></preferences>
  <hosts><host name="a" address="${addresses[0]}"/><host name="b" address="${addresses[1]}"/></hosts>
</profile>
XML
echo '<profile' >"$scratch/profiles/wrong.xml"
# Its spdlog is another than that of the library where it consists of headers alone.
for definitions in '' '-DSPDLOG_FMT_EXTERNAL -DFMT_HEADER_ONLY'; do
  # The flags are several words.
  # shellcheck disable=SC2046,SC2086
  "$cxx" -std=c++20 -o "$scratch/client" "$source/tests/package/client/main.cpp" \
    ${definitions:-$(pkg-config --cflags spdlog)} $(pkg-config --cflags --libs ahs libxml-2.0) \
    $([ -n "$definitions" ] || pkg-config --libs spdlog) || fail "the client is not built"
  rm -f "$scratch/client.log"
  selects "client ${definitions:-with spdlog of the system}" "$scratch/client" "$scratch/profiles" "$scratch/client.log"
  [ -s "$scratch/client.log" ] || fail "the library has not logged"
done

echo "== a client that loads the library by hand, and unloads it"
python3 - "$libdir/libahs.so.1" <<'PYTHON' || fail "unloading ends in status $?"
import _ctypes, ctypes as c, os, sys, time
for _ in range(50):
    ahs = c.CDLL(sys.argv[1])
    library, selection = c.c_void_p(), c.c_void_p()
    assert ahs.ahs_start(None, c.byref(library)) == 0
    assert ahs.ahs_select(library, None, ahs.ahs_no_callback, None, c.byref(selection)) == 0
    ahs.ahs_free(selection)
    ahs.ahs_stop(library)
    _ctypes.dlclose(ahs._handle)
assert "libahs.so" in open("/proc/self/maps").read()
for _ in range(100):
    if len(os.listdir("/proc/self/task")) == 1: break
    time.sleep(0.1)
else: sys.exit("threads are left")
PYTHON

echo "== the command's pages and completions"
share=$scratch/usr/share
for file in man/man1/ahs.1 man/man5/ahs-profile.5; do
  [ -s "$share/$file" ] || fail "there is no $file"
done
for file in bash-completion/completions/ahs zsh/site-functions/_ahs fish/vendor_completions.d/ahs.fish; do
  shell=${file%%[-/]*}
  "$scratch/usr/bin/ahs" completion "$shell" | cmp - "$share/$file" || fail "$file is not the command's"
done
echo "All of it works."
