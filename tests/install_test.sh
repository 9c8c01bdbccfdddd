#!/usr/bin/env bash
# Installs a build into a temporary root, moves that elsewhere, and builds the examples outside the tree against it,
# through pkg-config and through CMake: install_test.sh BUILD SOURCES
set -euo pipefail
build=$(realpath "$1")
sources=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$*"; exit 1; }

value_of() { sed -n "s|^$1:[A-Z]*=||p" "$build/CMakeCache.txt"; }
read -ra cflags <<<"$(value_of CMAKE_C_FLAGS)"
read -ra cxxflags <<<"$(value_of CMAKE_CXX_FLAGS)"
cc=$(value_of CMAKE_C_COMPILER)
cxx=$(value_of CMAKE_CXX_COMPILER)
class=$(readelf -h "$build/libobreg.so" | grep Class:)

cmake --install "$build" --prefix "$work/first" >"$work/install.log"
mv "$work/first" "$work/root"
root=$work/root
library=$(find "$root" -name libobreg.so)
[ "$(wc -w <<<"$library")" = 1 ] || fail "expected one library, found: $library"
if grep -rlI -e "$work/first" -e "$build" -e "$sources" "$root" | grep .; then
    fail "these name a place that is not the installation's"
fi

# What else there must be, by the components of the build.
expected=(include/obreg/{changes.hpp,obreg.h,roots.h,registry.hpp,status.hpp,transaction.hpp,value.hpp,watch.hpp,watcher.hpp} share/cmake/obreg/obreg-config.cmake)
if grep -q ELF64 <<<"$class"; then
    expected+=(bin/obreg sbin/obregd lib/systemd/system/obregd{,-backup,-compact}.service
               lib/systemd/system/{obregd.socket,obregd-{backup,compact}.timer} lib/{sysusers,tmpfiles}.d/obregd.conf
               libexec/obregd-{own-files,backup} share/doc/obregd/log-messages.md share/zsh/vendor-completions/_obreg)
    # The manual is there, or scdoc was not.
    [ "$(value_of OBREG_SCDOC)" = OBREG_SCDOC-NOTFOUND ] ||
        expected+=(share/man/man{3/OBRegCloseKey.3,7/obreg.7,8/obregd.8})
    grep -q "^ExecStart=$(value_of CMAKE_INSTALL_PREFIX)/sbin/obregd" "$root/lib/systemd/system/obregd.service" ||
        fail "the service does not start the installed daemon"
fi
for file in "${expected[@]}"; do [ -f "$root/$file" ] || fail "$file is not installed"; done

# check PROGRAM: made of the installed library, for the right machine, and runs as far as it does without a daemon
check() {
    local output status=0
    output=$(readelf -h "$1")
    grep -qF "$class" <<<"$output" || fail "$1 is not $class"
    output=$(LD_LIBRARY_PATH=$(dirname "$library") ldd "$1")
    grep -qF "$library" <<<"$output" || fail "$1 does not use $library, but: $output"
    output=$(LD_LIBRARY_PATH=$(dirname "$library") OMBREL_MAX_REGIPC_SETUP_TIME=0 "$1" 2>&1) || status=$?
    { [ "$status" = 1 ] && grep -q C7F10001 <<<"$output"; } || fail "$1 ends with $status and says: $output"
}

mkdir -p "$work"/app/{user,part,other}
cp "$sources"/examples/example.{c,cpp} "$work/app"
cd "$work/app"

PKG_CONFIG_PATH=$(dirname "$(find "$root" -name obreg.pc)")
export PKG_CONFIG_PATH
read -ra flags <<<"$(pkg-config --cflags --libs obreg)"
"$cc" "${cflags[@]}" -Wall -Wextra -Werror -std=c99 example.c "${flags[@]}" -o c
"$cxx" "${cxxflags[@]}" -Wall -Wextra -Werror -std=c++17 example.cpp "${flags[@]}" -o cpp
check "$work/app/c"
check "$work/app/cpp"
unset PKG_CONFIG_PATH

cp example.c user
cat >user/CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.16)
project(app C CXX)
find_package(obreg 1.0 REQUIRED)
add_executable(c example.c)
target_link_libraries(c obreg::obreg)
END
# configure SOURCE FLAG... : into SOURCE/out
configure() {
    cmake -S "$1" -B "$1/out" -G Ninja -D CMAKE_PREFIX_PATH="$root" -D CMAKE_C_COMPILER="$cc" -D CMAKE_CXX_COMPILER="$cxx" \
        -D CMAKE_C_FLAGS="${*:2}" -D CMAKE_CXX_FLAGS="${*:2}" >"$1.log" 2>&1
}
configure user "${cflags[@]}" || { cat user.log; fail "find_package does not find it"; }
cmake --build user/out >build.log || { cat build.log; fail "what find_package finds does not build"; }
check "$work/app/user/out/c"

# What goes to /usr leaves it to the loader to find the library.
[ "$(value_of CMAKE_INSTALL_PREFIX)" != /usr ] || export LD_LIBRARY_PATH=${library%/*}
[ ! -e "$root/bin/obreg" ] || "$root/bin/obreg" --help >/dev/null || fail "the installed obreg does not find its library"

# As a part of another project: the library alone.
cp example.c part
sed "s|^find_package.*|add_subdirectory($sources libobreg)|" user/CMakeLists.txt >part/CMakeLists.txt
configure part "${cflags[@]}" || { cat part.log; fail "it cannot be a part of another project"; }
cmake --build part/out >build.log || { cat build.log; fail "as a part of another project it does not build"; }
cmake --install part/out --prefix "$work/part" >build.log
more=$(find part/out "$work/part" -name 'obregd*' -o -name '*_test' -o -name 'OBReg*.3' -o -path '*/bin/*')
[ -z "$more" ] || fail "as a part of another project it builds or installs more than the library: $more"
library=$(find "$PWD/part/out" -name libobreg.so)
check "$work/app/part/out/c"

# The other word size is not there, and that is said.
case ${cflags[*]-} in *-m32*) other=-m64 ;; *) other=-m32 ;; esac
cp user/CMakeLists.txt other
! configure other "$other" || fail "find_package gives a library of the wrong word size"
grep -q "bit libobreg" other.log || { cat other.log; fail "find_package does not say which library is missing"; }

echo "$(find "$root" -type f | wc -l) files installed; C and C++ built against them through pkg-config, C through CMake"
