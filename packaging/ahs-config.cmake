# find_package(ahs 1) defines ahs::ahs.
include(${CMAKE_CURRENT_LIST_DIR}/ahs-targets.cmake)
