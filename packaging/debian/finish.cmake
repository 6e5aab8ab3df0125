# Run by CPack on the installed trees of the packages: adds what only Debian packages have, and
# compresses what Debian wants compressed.
foreach(entry IN LISTS CPACK_ONEDRIVE4B_PACKAGES)
  string(REGEX MATCH "^(.*)=(.*)$" entry ${entry})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${CMAKE_MATCH_1}${CPACK_PACKAGING_INSTALL_PREFIX})
  set(doc ${root}/share/doc/${CMAKE_MATCH_2})
  file(COPY ${CPACK_ONEDRIVE4B_TEXTS}/copyright DESTINATION ${doc}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(COPY_FILE ${CPACK_ONEDRIVE4B_TEXTS}/changelog ${doc}/changelog.Debian)
  file(GLOB manual_pages ${root}/share/man/man*/*)
  foreach(file IN LISTS manual_pages ITEMS ${doc}/changelog.Debian)
    file(CHMOD ${file} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    execute_process(COMMAND gzip -9n ${file} COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endforeach()
