# The component "tools". See install.cmake.
install(TARGETS onedrive4b_cli RUNTIME DESTINATION ${private_dir}/bin COMPONENT tools)
install(TARGETS onedrive4b-emulator
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
file(RELATIVE_PATH program_from_bin
  ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/onedrive4b/bin/onedrive4b)
file(MAKE_DIRECTORY ${generated}/links)
file(CREATE_LINK ${program_from_bin} ${generated}/links/onedrive4b SYMBOLIC)
install(FILES ${generated}/links/onedrive4b
  DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
# The system's bundle, as it changes. Without one there is no link, and libcurl's default is used.
file(CREATE_LINK ${system_bundle} ${generated}/links/cacert.pem SYMBOLIC)
install(FILES ${generated}/links/cacert.pem
  DESTINATION ${private_dir}/Frameworks COMPONENT tools OPTIONAL)
foreach(program onedrive4b onedrive4b-emulator)
  configure_file(docs/man/${program}.1.in ${generated}/man/${program}.1 @ONLY)
  install(FILES ${generated}/man/${program}.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES ${templates}/completion/${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
endforeach()
