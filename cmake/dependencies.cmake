find_package(CURL 7.85 REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED)
find_package(CLI11 2.1 REQUIRED)

find_package(PkgConfig REQUIRED)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(LIBEVENT_CORE REQUIRED IMPORTED_TARGET libevent_core)
