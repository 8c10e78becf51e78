# Libraries of the tool, the tests and the benchmarks: headers that compile for every target. They
# are found by name, because package files reject the other word size.

# qziop_use_headers(TARGET HEADER...)
function(qziop_use_headers target)
  foreach(header IN LISTS ARGN)
    string(MAKE_C_IDENTIFIER QZIOP_${header}_DIR variable)
    find_path(${variable} ${header})
    if(NOT ${variable})
      message(FATAL_ERROR "no ${header}: run scripts/setup")
    endif()
    mark_as_advanced(${variable})
    target_include_directories(${target} SYSTEM PRIVATE ${${variable}})
  endforeach()
endfunction()

# Compiles fmt once: with headers only, fmt takes three quarters of each file's compile time.
add_library(qziop_fmt STATIC EXCLUDE_FROM_ALL ${CMAKE_CURRENT_LIST_DIR}/fmt.cpp)
qziop_use_headers(qziop_fmt fmt/format.h)
