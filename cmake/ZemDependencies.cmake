find_package(PkgConfig REQUIRED)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(JSONC REQUIRED IMPORTED_TARGET json-c)
if(ZEM_PLATFORM STREQUAL "host")
  pkg_check_modules(WBCLIENT REQUIRED wbclient)  # its interface; it is opened when it is needed
endif()

# Debian ships json-c's archive, but no archive of jsoncpp: script/bootstrap
# builds that one from Debian's source package.
find_library(ZEM_JSONC_ARCHIVE NAMES libjson-c.a REQUIRED)
find_library(ZEM_CRYPTO_ARCHIVE NAMES libcrypto.a REQUIRED)
find_library(ZEM_PCRE_ARCHIVE NAMES libpcre.a REQUIRED)
find_library(ZEM_PCRECPP_ARCHIVE NAMES libpcrecpp.a REQUIRED)
set(ZEM_BOOTSTRAP_JSONCPP "${CMAKE_SOURCE_DIR}/.deps/jsoncpp/lib/libjsoncpp.a")
if(NOT ZEM_JSONCPP_ARCHIVE AND EXISTS "${ZEM_BOOTSTRAP_JSONCPP}")
  set(ZEM_JSONCPP_ARCHIVE "${ZEM_BOOTSTRAP_JSONCPP}")
endif()

add_library(zem_jsoncpp_static INTERFACE)
target_include_directories(zem_jsoncpp_static SYSTEM INTERFACE ${JSONCPP_INCLUDE_DIRS})
if(ZEM_JSONCPP_ARCHIVE)
  target_link_libraries(zem_jsoncpp_static INTERFACE "${ZEM_JSONCPP_ARCHIVE}")
else()
  target_link_libraries(zem_jsoncpp_static INTERFACE PkgConfig::JSONCPP)
endif()
