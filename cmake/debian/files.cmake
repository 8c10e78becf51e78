# Run by cpack over the tree that becomes the Debian package: adds what Debian asks of a package, and
# compresses what it wants compressed. The time in compressed files is left out, so that a package
# made twice is the same.
set(share ${CPACK_TEMPORARY_DIRECTORY}/usr/share)
set(doc ${share}/doc/qziop)
file(COPY ${CPACK_QZIOP_DEBIAN_FILES}/copyright ${CPACK_QZIOP_DEBIAN_FILES}/changelog
     DESTINATION ${doc} FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
configure_file(${CPACK_QZIOP_DEBIAN_FILES}/lintian-overrides ${share}/lintian/overrides/qziop COPYONLY)
file(GLOB pages ${share}/man/man*/*.[1-9])
execute_process(COMMAND gzip -9nf ${pages} ${doc}/changelog COMMAND_ERROR_IS_FATAL ANY)
