# Writes BuildCommit.h: the built commit, with "-dirty" if there are changes; nothing if the sources
# are no git work tree (a tarball, a package's build). cmake -D SOURCE -D OUTPUT -P
cmake_minimum_required(VERSION 3.25)
set(commit "")
if(EXISTS ${SOURCE}/.git)
  execute_process(COMMAND git --no-optional-locks -C ${SOURCE} describe --always --dirty --abbrev=12 --exclude=*
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
file(CONFIGURE OUTPUT ${OUTPUT} CONTENT "#pragma once\n#define AHS_BUILD_COMMIT \"@commit@\"\n" @ONLY)
