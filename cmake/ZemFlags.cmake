# One interface target carries the flags of everything that is built here.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS ON)  # glibc's interfaces beside POSIX: statx, O_TMPFILE, getrandom
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_SKIP_RPATH ON)

include(CheckPIESupported)
check_pie_supported()

add_library(zem_flags INTERFACE)
target_compile_options(zem_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  -ffunction-sections -fdata-sections
  -fstack-protector-strong -fstack-clash-protection -fcf-protection
  # __FILE__ becomes a path below the project, the same on every machine.
  "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")
target_link_options(zem_flags INTERFACE
  -Wl,--as-needed -Wl,--gc-sections -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--hash-style=gnu)

if(ZEM_WERROR)
  target_compile_options(zem_flags INTERFACE -Werror)
endif()
if(ZEM_FUZZERS)
  target_compile_options(zem_flags INTERFACE -fsanitize=fuzzer-no-link,address,undefined
                         -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(zem_flags INTERFACE -fsanitize=address,undefined)
elseif(ZEM_SANITIZE)
  target_compile_options(zem_flags INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=undefined
                         -fno-omit-frame-pointer)
  target_compile_definitions(zem_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>)
  target_link_options(zem_flags INTERFACE -fsanitize=address,undefined)
elseif(ZEM_COVERAGE)
  target_compile_options(zem_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(zem_flags INTERFACE --coverage)
elseif(CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_definitions(zem_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:_GLIBCXX_ASSERTIONS>)
else()
  target_compile_definitions(zem_flags INTERFACE _FORTIFY_SOURCE=2)
endif()
