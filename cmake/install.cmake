# What `cmake --install` installs: the module, the stand-in host, the headers, the tool and the
# package files with which other projects find them. All paths are relative, so an installed tree
# can be moved.
include(CMakePackageConfigHelpers)

set(headers_dir ${CMAKE_INSTALL_INCLUDEDIR}/qziop)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qziop)

set_target_properties(qziop_headers PROPERTIES EXPORT_NAME headers)
set_target_properties(qziop_trace PROPERTIES EXPORT_NAME trace)
set_target_properties(qzstandin PROPERTIES EXPORT_NAME standin)
set_target_properties(qzphostcheck PROPERTIES EXPORT_NAME hostcheck)
install(TARGETS qziop qziop_trace qziop_headers qzstandin qzphostcheck EXPORT qziopTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${headers_dir})
foreach(part IN ITEMS QZPOS qzp host hostcheck)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${part}/include/ DESTINATION ${headers_dir}
          FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")
endforeach()

install(TARGETS qzpfile RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Beside the module, where the layer looks for it.
if(TARGET qzvfs)
  install(TARGETS qzvfs LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

install(EXPORT qziopTargets NAMESPACE qziop:: DESTINATION ${config_dir})
configure_package_config_file(cmake/qziopConfig.cmake.in ${PROJECT_BINARY_DIR}/qziopConfig.cmake
                              INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qziopConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qziopConfig.cmake ${PROJECT_BINARY_DIR}/qziopConfigVersion.cmake
        DESTINATION ${config_dir})

# The path from the folder of the .pc file to the prefix.
file(RELATIVE_PATH prefix_from_pc
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
configure_file(cmake/qziop.pc.in ${PROJECT_BINARY_DIR}/qziop.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qziop.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# gdb loads this file with the module: it looks under its own folder, at the path of the module, for
# a file with the module's name. Prefixes other than gdb's need "add-auto-load-scripts-directory".
install(FILES cmake/libqziop-gdb.py RENAME libqziop.so.${PROJECT_VERSION}-gdb.py
        DESTINATION "${CMAKE_INSTALL_DATADIR}/gdb/auto-load\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")

install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR}
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.txt" PATTERN "*.json")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.cpp")

include(cmake/deb.cmake)
