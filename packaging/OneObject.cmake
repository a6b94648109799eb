# Makes one object, OUTPUT, of OBJECTS in which only the names are visible that the shared library LIBRARY
# shows, so that a program is as free with its own names whichever of the two it links.
#
# What C++ lets every object define again (inline functions, templates, the tables of classes) is
# visible or not by the same list, and no longer in groups of which a linker keeps one: it could keep the
# program's, and what refers to a hidden name of the dropped one would refer to nothing.
function(run)
  execute_process(COMMAND ${ARGV} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(all ${OUTPUT}.all)
run(${LINKER} -r --force-group-allocation -o ${all} ${OBJECTS})

run(${NM} --dynamic --defined-only --format=posix ${LIBRARY})
string(REGEX REPLACE "[@ ][^\n]*" "" shown "${output}")
file(WRITE ${OUTPUT}.shown "${shown}")

# A name that is unique in a process (u) is not hidden by the tool unless it is weak, and two objects that
# define it outside of groups are not linked.
run(${NM} --defined-only --format=posix ${all})
string(REGEX MATCHALL "[^\n]+ u [^\n]*" unique "${output}")
if(unique)
  list(TRANSFORM unique REPLACE " .*" "\n")
  list(JOIN unique "" unique)
  file(WRITE ${OUTPUT}.unique "${unique}")
  run(${OBJCOPY} --weaken-symbols=${OUTPUT}.unique ${all})
endif()
run(${OBJCOPY} --keep-global-symbols=${OUTPUT}.shown ${all} ${OUTPUT})
file(REMOVE ${all})
