#!/bin/bash
# A checkout as a subdirectory of another project: a client in C++, which sets no standard of the
# language, and one in C find the headers and are compiled with their own flags. Only the clients' objects
# are compiled, which tells as much as the library would and takes a second.
# Usage: subdirectory_test.sh SOURCE-DIRECTORY C++-COMPILER C-COMPILER
set -euo pipefail
source=$1 cxx=$2 cc=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}

cp "$source/examples/embed/embed.cpp" "$scratch"
sed 's|"capi/ahs.h"|"ahs.h"|' "$source/tests/capi/c_client.c" >"$scratch/c_client.c"
# The library's own warnings would be errors here.
echo 'int narrow(double value, int unused) { int value2 = value; { int value2 = 1; (void)value2; } return value2; }' |
  tee -a "$scratch/embed.cpp" >>"$scratch/c_client.c"
cat >"$scratch/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES C CXX)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
add_subdirectory("$source" ahs EXCLUDE_FROM_ALL)
add_executable(embed embed.cpp)
target_link_libraries(embed PRIVATE vpn_ahs)
add_executable(c_client c_client.c)
target_link_libraries(c_client PRIVATE ahs_c)
CMAKE
{
  cmake -G Ninja -S "$scratch" -B "$scratch/build" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc"
  ninja -C "$scratch/build" CMakeFiles/embed.dir/embed.cpp.o CMakeFiles/c_client.dir/c_client.c.o
} >"$scratch/log" 2>&1 || { cat "$scratch/log"; fail "the clients are not compiled"; }

for client in embed.cpp c_client.c; do
  command=$(grep "\"command\".* $scratch/$client\"" "$scratch/build/compile_commands.json") ||
    fail "$client is not in the compile commands"
  for flag in $command; do
    [[ $flag != -[Wf]* ]] || fail "$client is compiled with $flag, which it did not ask for"
  done
done
! grep -q -- '-Werror' "$scratch/build/compile_commands.json" || fail "a warning of a later compiler would be an error"
grep -q -- '-Wconversion' "$scratch/build/compile_commands.json" || fail "the library has lost its warnings"
echo "Both clients are compiled with their own flags."
