# Run by cpack before it packs: adds to each component what Debian wants in a package and an
# installed tree does without. Compresses manual pages.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}/share)
  set(doc ${share}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright ${doc}/copyright COPYONLY)
  file(WRITE ${doc}/changelog "${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * Built from the sources of this version.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  file(GLOB pages ${share}/man/man*/*.[0-9])
  execute_process(COMMAND gzip -9n ${doc}/changelog ${pages} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
