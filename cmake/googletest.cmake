# GoogleTest from Debian's source package, so that every kind of build can compile it.
set(QZIOP_GOOGLETEST /usr/src/googletest CACHE PATH "GoogleTest's sources")
if(NOT EXISTS ${QZIOP_GOOGLETEST}/CMakeLists.txt)
  message(FATAL_ERROR "no GoogleTest sources in ${QZIOP_GOOGLETEST}: run scripts/setup")
endif()
set(INSTALL_GTEST OFF CACHE INTERNAL "")
set(BUILD_GMOCK OFF CACHE INTERNAL "")
add_subdirectory(${QZIOP_GOOGLETEST} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
# Nothing that is tested: it only has to compile fast.
target_compile_options(gtest PRIVATE -O0 -g0 -fno-sanitize=all)
# Beside the other archives, not among the programs.
set_target_properties(gtest gtest_main PROPERTIES
  ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/googletest)
