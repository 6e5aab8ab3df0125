# The Debian packages, one for each component: what scripts/package has CPack make.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME onedrive4b)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/finish.cmake)

set(CPACK_COMPONENTS_ALL module development tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_PACKAGE_MAINTAINER "onedrive4b developers <onedrive4b@users.noreply.invalid>"
  CACHE STRING "Maintainer of the Debian packages")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME onedrive4b-module)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_MODULE_DESCRIPTION "protocol module for OneDrive for Business
A library that a desktop host loads to reach OneDrive for Business: it
signs the host's user in, and lists, reads, writes and arranges files
through one C++ interface.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libonedrive4b-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "onedrive4b-module ${same_version}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"protocol module for OneDrive for Business (headers)
The headers that a host of the module is built against, and the files by
which CMake and pkg-config find them.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME onedrive4b)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "ca-certificates, fuse3, onedrive4b-module ${same_version}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "use OneDrive for Business from the command line
A program that browses a drive of OneDrive for Business and carries files
both ways, and an emulator of the service for trying out and testing
clients without an account.")

# For the script that completes each package's tree.
set(CPACK_ONEDRIVE4B_PACKAGES "module=onedrive4b-module" "development=libonedrive4b-dev"
  "tools=onedrive4b")
set(CPACK_ONEDRIVE4B_TEXTS ${PROJECT_BINARY_DIR}/packaging/debian)
if(EXISTS ${PROJECT_SOURCE_DIR}/LICENSE)
  file(READ ${PROJECT_SOURCE_DIR}/LICENSE license_text)
else()
  set(license_text "No licence has been granted; all rights are reserved.")
endif()
string(STRIP "${license_text}" license_text)
string(REGEX REPLACE "\n[ \t]*\n" "\n.\n" license_text " ${license_text}")
string(REPLACE "\n" "\n " license_text "${license_text}")
string(TIMESTAMP changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # SOURCE_DATE_EPOCH is heeded
configure_file(packaging/debian/copyright.in ${CPACK_ONEDRIVE4B_TEXTS}/copyright @ONLY)
configure_file(packaging/debian/changelog.in ${CPACK_ONEDRIVE4B_TEXTS}/changelog @ONLY)

include(CPack)
