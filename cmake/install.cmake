# What `cmake --install` lays down, in three components that are packages of their own:
#
#   module       <libdir>/onedrive4b/lib/libonedrive4b.so
#   development  the host's headers, and how CMake and pkg-config find them and the module
#   tools        the two programs, their manual pages and completions
#
# The host program looks for its module in ../lib and for its certificate bundle in ../Frameworks
# beside the folder in which it really lies, so it lies in the private folder and <bindir> holds a
# link to it. All paths between installed files are relative: the tree may be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(private_dir ${CMAKE_INSTALL_LIBDIR}/onedrive4b)
set(headers_dir ${CMAKE_INSTALL_INCLUDEDIR})
set(module_file ${private_dir}/lib/libonedrive4b.so)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/onedrive4b)
set(templates ${PROJECT_SOURCE_DIR}/packaging)
set(generated ${PROJECT_BINARY_DIR}/packaging)
string(TIMESTAMP man_date "%Y-%m" UTC)  # SOURCE_DATE_EPOCH is heeded

install(TARGETS onedrive4b_module LIBRARY DESTINATION ${private_dir}/lib COMPONENT module)

install(DIRECTORY include/onedrive4b DESTINATION ${headers_dir} COMPONENT development)
configure_package_config_file(${templates}/onedrive4b-config.cmake.in
  ${generated}/onedrive4b-config.cmake
  INSTALL_DESTINATION ${config_dir}
  PATH_VARS headers_dir module_file)
write_basic_package_version_file(${generated}/onedrive4b-config-version.cmake
  COMPATIBILITY SameMajorVersion)
file(RELATIVE_PATH prefix_from_pc
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
configure_file(${templates}/onedrive4b.pc.in ${generated}/onedrive4b.pc @ONLY)
install(
  FILES ${generated}/onedrive4b-config.cmake ${generated}/onedrive4b-config-version.cmake
  DESTINATION ${config_dir}
  COMPONENT development)
install(FILES ${generated}/onedrive4b.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(ONEDRIVE4B_PROGRAMS)
  include(cmake/install_programs.cmake)
  include(${templates}/debian/packages.cmake)
endif()
