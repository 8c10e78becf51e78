# The Debian package; scripts/package makes it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qziop)
set(CPACK_PACKAGE_VENDOR "qziop maintainers")
set(CPACK_PACKAGE_CONTACT "qziop maintainers <maintainers@qziop.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "paged files through buffered or direct I/O")
set(CPACK_PACKAGE_DESCRIPTION
"A shared library that reads and writes files made of a header and fixed-size
pages, with headers and a small host for the programs that load it, and qzpfile,
which packs, unpacks, inspects and checks such files.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The date of the last commit; outside a clone, the date of the build.
execute_process(COMMAND git -C ${PROJECT_SOURCE_DIR} log -1 --format=%cD OUTPUT_VARIABLE changelog_date
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT changelog_date)
  string(TIMESTAMP changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
endif()
set(CPACK_QZIOP_DEBIAN_FILES ${PROJECT_BINARY_DIR}/debian)
configure_file(cmake/debian/changelog.in ${CPACK_QZIOP_DEBIAN_FILES}/changelog @ONLY)
foreach(file IN ITEMS copyright lintian-overrides triggers)
  configure_file(cmake/debian/${file} ${CPACK_QZIOP_DEBIAN_FILES}/${file} COPYONLY)
endforeach()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CPACK_QZIOP_DEBIAN_FILES}/triggers)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/files.cmake)
include(CPack)
