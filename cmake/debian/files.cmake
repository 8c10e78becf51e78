# cpack runs this in the tree of the Debian package: adds the files that Debian requires and
# compresses those that it wants compressed. Compressed files contain no time, so that building the
# package twice gives the same file.
set(share ${CPACK_TEMPORARY_DIRECTORY}/usr/share)
set(doc ${share}/doc/qziop)
file(COPY ${CPACK_QZIOP_DEBIAN_FILES}/copyright ${CPACK_QZIOP_DEBIAN_FILES}/changelog
     DESTINATION ${doc} FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
configure_file(${CPACK_QZIOP_DEBIAN_FILES}/lintian-overrides ${share}/lintian/overrides/qziop COPYONLY)
file(GLOB pages ${share}/man/man*/*.[1-9])
execute_process(COMMAND gzip -9nf ${pages} ${doc}/changelog COMMAND_ERROR_IS_FATAL ANY)
