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
include(CPack)
