# The whole module as objects: what the shared library, the unit tests, benchmarks and fuzzers link.
# Each of the module's folders adds its sources.
add_library(onedrive4b_libraries INTERFACE)
target_link_libraries(onedrive4b_libraries INTERFACE
  CURL::libcurl PkgConfig::JSONCPP PkgConfig::LIBEVENT_CORE Threads::Threads)

add_library(onedrive4b_objects OBJECT)
target_include_directories(onedrive4b_objects PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(onedrive4b_objects
  PUBLIC onedrive4b_headers onedrive4b_libraries
  PRIVATE onedrive4b_warnings)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=.*undefined")
  # Hosts declare the interfaces themselves, so their objects have types of their own.
  target_compile_options(onedrive4b_objects PRIVATE -fno-sanitize=vptr)
endif()
