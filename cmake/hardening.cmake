# Hardening of everything built here, the module in a host's process above all: stack protectors,
# checked libc calls, relocations that are resolved and read-only before anything runs, and programs
# at random addresses. Sanitized builds bring checks of their own, and FORTIFY_SOURCE needs an
# optimizing build.
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  set(ONEDRIVE4B_CHECKED_CALLS ON)
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  add_compile_definitions($<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:_FORTIFY_SOURCE=2>)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|i.86)$")
    add_compile_options(-fcf-protection)
  endif()
endif()
add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
