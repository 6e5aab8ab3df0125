# Warnings of our own targets: target_link_libraries(<target> PRIVATE onedrive4b_warnings).
# CMAKE_COMPILE_WARNING_AS_ERROR, set by the presets, makes them errors.
add_library(onedrive4b_warnings INTERFACE)
target_compile_options(onedrive4b_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  # Instrumented, the standard library's own regular expressions look uninitialized to GCC.
  target_compile_options(onedrive4b_warnings INTERFACE -Wno-maybe-uninitialized)
endif()
