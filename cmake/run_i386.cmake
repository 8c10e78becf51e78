# If the kernel cannot run 32-bit programs, a 32-bit build runs them with qemu-i386. This is tested
# by running one: kernel configurations do not show it.
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT DEFINED QZIOP_RUNS_I386)
  file(WRITE ${CMAKE_BINARY_DIR}/probe/probe.c "int main(void) { return 0; }\n")
  try_compile(probe_builds ${CMAKE_BINARY_DIR}/probe SOURCES ${CMAKE_BINARY_DIR}/probe/probe.c
              COPY_FILE ${CMAKE_BINARY_DIR}/probe/probe)
  if(NOT probe_builds)
    message(FATAL_ERROR "no 32-bit compiler: run scripts/setup")
  endif()
  execute_process(COMMAND ${CMAKE_BINARY_DIR}/probe/probe RESULT_VARIABLE probe_result
                  OUTPUT_QUIET ERROR_QUIET)
  if(probe_result EQUAL 0)
    set(QZIOP_RUNS_I386 directly CACHE INTERNAL "how 32-bit programs run here")
  else()
    find_program(QEMU_I386 NAMES qemu-i386 qemu-i386-static REQUIRED)
    set(QZIOP_RUNS_I386 ${QEMU_I386} CACHE INTERNAL "how 32-bit programs run here")
    set(CMAKE_CROSSCOMPILING_EMULATOR ${QEMU_I386} CACHE STRING "runs 32-bit programs")
  endif()
  message(STATUS "32-bit programs run: ${QZIOP_RUNS_I386}")
endif()
