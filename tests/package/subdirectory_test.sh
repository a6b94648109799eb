#!/bin/bash
# A checkout as a subdirectory of another project: clients of the door in C and C++, and one with the class
# itself on its own client library, find the headers and compile with their own flags. Compiles only the
# clients' objects, which proves as much as the library and takes a second.
# Usage: subdirectory_test.sh SOURCE-DIRECTORY C++-COMPILER C-COMPILER
set -euo pipefail
source=$1 cxx=$2 cc=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}

cp "$source/examples/embed/embed.cpp" "$source/tests/capi/c_client.c" "$scratch"
cat >"$scratch/port.cpp" <<CODE
#include "vpn/Api/AHS/HeadendSelection.h"
long begin(ClientIfcBase& client) {
  long status = 0;
  delete new CHeadendSelection(&client, "", 0, status);
  return status;
}
CODE
# The library's own warnings would be errors here.
echo 'int narrow(double value, int unused) { int value2 = value; { int value2 = 1; (void)value2; } return value2; }' |
  tee -a "$scratch/embed.cpp" "$scratch/port.cpp" >>"$scratch/c_client.c"
cat >"$scratch/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES C CXX)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
add_subdirectory("$source" ahs EXCLUDE_FROM_ALL)
add_library(doors OBJECT embed.cpp c_client.c)
target_link_libraries(doors PRIVATE ahs_c)
add_library(port OBJECT port.cpp)
target_link_libraries(port PRIVATE vpn_ahs)
CMAKE
{
  cmake -G Ninja -S "$scratch" -B "$scratch/build" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc"
  ninja -C "$scratch/build" CMakeFiles/doors.dir/{embed.cpp,c_client.c}.o CMakeFiles/port.dir/port.cpp.o
} >"$scratch/log" 2>&1 || { cat "$scratch/log"; fail "the clients are not compiled"; }

for client in embed.cpp c_client.c port.cpp; do
  command=$(grep "\"command\".* $scratch/$client\"" "$scratch/build/compile_commands.json") ||
    fail "$client is not in the compile commands"
  for flag in $command; do
    [[ $flag != -[Wf]* ]] || fail "$client is compiled with $flag, which it did not ask for"
  done
done
! grep -q -- '-Werror' "$scratch/build/compile_commands.json" || fail "a warning of a later compiler would be an error"
grep -q -- '-Wconversion' "$scratch/build/compile_commands.json" || fail "the library has lost its warnings"
echo "All clients are compiled with their own flags."
