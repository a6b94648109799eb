# find_package(ahs 1) gives ahs::ahs.
include(${CMAKE_CURRENT_LIST_DIR}/ahs-targets.cmake)
