#!/usr/bin/env bash
# The installed package as its users meet it: it builds without a preset, every header
# compiles alone, the guide's program builds by the guide's two lines and by CMake, and
# exactly the listed symbols are exported.
set -euo pipefail
project=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "FAILED: $*" >&2; exit 1; }

cmake -S "$project" -B "$work/build" -DBUILD_TESTING=OFF >/dev/null
cmake --build "$work/build" -j2 >/dev/null
cmake --install "$work/build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
read -ra flags <<<"$(pkg-config --cflags libzem)"
strict=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fsyntax-only)

echo "--- every header compiles alone"
for header in "$prefix"/include/libzem/*/*.h; do
  name=${header#"$prefix"/include/libzem/}
  echo "#include <$name>" | g++ -std=c++20 "${strict[@]}" "${flags[@]}" -x c++ - || fail "$name as C++"
  case $name in
    vemo/webserver.h | vemo/taskmgr.h) ;;
    vemo/*) echo "#include <$name>" | gcc -std=c11 -D_GNU_SOURCE "${strict[@]}" "${flags[@]}" -x c - || fail "$name as C" ;;
  esac
done
[ ! -e "$prefix/include/libzem/common" ] || fail "internal headers are installed"
[ "$(find "$prefix/include/libzem/vemo" -name '*.h' | wc -l)" = 16 ] || fail "the boundary has sixteen headers"

echo "--- the guide's program"
cd "$work"
sed -n '/^```cpp$/,/^```$/p' "$project/docs/guide.md" | sed '1d;/^```$/,$d' >hello.cpp
[ "$(grep -c . hello.cpp)" -le 32 ] || fail "the guide's program has grown"
sed -n '/^```sh$/,/^```$/p' "$project/docs/guide.md" | sed '1d;$d' >lines.sh
[ "$(wc -l <lines.sh)" = 2 ] || fail "the guide has two lines"
refused() { grep -q '"error_noprivilege"' "$1" && grep -q '^x-request-error: unauth' "$1" || { cat "$1"; fail "$2"; }; }
LD_LIBRARY_PATH=$prefix/lib bash -e lines.sh >answer
refused answer "shared, by pkg-config"
# shellcheck disable=SC2046
g++ -std=c++20 hello.cpp -o static.cgi -Wl,-Bstatic $(pkg-config --cflags --static --libs libzem | sed 's/-ljsoncpp/-Wl,-Bdynamic -ljsoncpp -Wl,-Bstatic/') -Wl,-Bdynamic
REQUEST_METHOD=GET ./static.cgi >answer
refused answer "static, by pkg-config"
! ldd static.cgi | grep -E 'zem|vemo|json-c' >/dev/null || fail "the static program needs a library"
mkdir app && cp hello.cpp app/
cat >app/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(app LANGUAGES C CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(zem CONFIG REQUIRED)
add_executable(shared hello.cpp)
target_link_libraries(shared zem::zem)
add_executable(static hello.cpp)
target_link_libraries(static zem::zem_static)
CMAKE
cmake -S app -B app/build -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build app/build >/dev/null
for kind in shared static; do
  REQUEST_METHOD=GET "app/build/$kind" >answer
  refused answer "$kind, by CMake"
done

echo "--- what is mapped at the start"
LD_LIBRARY_PATH=$prefix/lib ldd hello.cgi | awk '{print $1}' | grep -vE 'vdso|ld-linux' >objects
[ "$(wc -l <objects)" -le 6 ] || { cat objects; fail "too many objects"; }
! grep -E 'crypto|pcre|libmount|pam|wbclient|oath|cjose|sqlite' objects || fail "a heavy library is mapped"

echo "--- exported symbols"
nm -DC --defined-only "$prefix/lib/libzem.so" | sed -E 's/^[0-9a-f]+ [A-Z] //' | sort -u >exported
diff "$project/packaging/exported-symbols.txt" exported || fail "the exported symbols have changed"
! nm -D --defined-only "$prefix/lib/libzem.so" | grep -E ' (json_|vemo_)' >/dev/null || fail "internals are exported"

echo "--- hardening of what is built"
for file in "$prefix"/lib/libzem.so "$prefix"/lib/libvemo*.so "$work"/build/programs/*.cgi; do
  readelf -lW "$file" | grep 'GNU_RELRO' >/dev/null || fail "$file: no RELRO"
  readelf -dW "$file" | grep -E 'BIND_NOW|FLAGS.*NOW' >/dev/null || fail "$file: lazy binding"
  ! readelf -lW "$file" | grep 'GNU_STACK' | grep 'E ' >/dev/null || fail "$file: executable stack"
  ! readelf -dW "$file" | grep -E 'RPATH|RUNPATH' >/dev/null || fail "$file: a search path"
  nm -D "$file" | grep '__stack_chk_fail' >/dev/null || fail "$file: no stack protector"
  # A small library may call nothing that has a checked form.
  case $file in *libvemo*) continue ;; esac
  nm -D "$file" | grep -E '_chk(@|$)' >/dev/null || fail "$file: not fortified"
done
for program in "$work"/build/programs/*.cgi; do
  readelf -h "$program" | grep 'DYN (Position-Independent' >/dev/null || fail "$program: not position-independent"
done
echo "--- over a platform from elsewhere"
cmake -S "$project" -B "$work/external" -DBUILD_TESTING=OFF -DZEM_PLATFORM=external \
  -DZEM_PLATFORM_PREFIX="$prefix" >/dev/null
cmake --build "$work/external" -j2 --target zem >/dev/null
ldd "$work/external/cmake/libzem/libzem.so" | grep 'libvemocgi' >/dev/null || fail "the platform's library is not used"
