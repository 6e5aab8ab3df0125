# A copy of the system's certificate bundle in Frameworks/ beside the folder of the host program,
# where the module looks for it.
set(system_bundle /etc/ssl/certs/ca-certificates.crt)
if(EXISTS ${system_bundle})
  configure_file(${system_bundle} ${PROJECT_BINARY_DIR}/Frameworks/cacert.pem COPYONLY)
else()
  message(WARNING "${system_bundle} not found: the host program will use libcurl's default bundle")
endif()
