#!/usr/bin/env bash
# install_smoke.sh BUILD_DIR SOURCE_DIR
# Installs to a temporary prefix, then builds and runs a C program and a C++
# program with nothing but pkg-config, and a CMake project with
# find_package(MarivaneLogging). The programs run with only an rpath to the
# prefix: the libraries must find their companions by themselves.
set -euo pipefail

build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

"$CMAKE_COMMAND" --install "$build_dir" --prefix "$prefix" >/dev/null

for lib in libmarivane-logging.so.4 libmarivane-core.so.1 libmarivane-database.so.1; do
    test -e "$prefix/lib/$lib" || { echo "missing $prefix/lib/$lib"; exit 1; }
done
test -f "$prefix/lib/pkgconfig/marivane-logging.pc"
test -f "$prefix/include/logging/MV_Logging.h"
test -f "$prefix/include/logging/Logging.h"

export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
cflags=$(pkg-config --cflags marivane-logging)
libs=$(pkg-config --libs marivane-logging)

# shellcheck disable=SC2086
"$CC" -std=c99 -Wall -Wextra -Wpedantic -Werror $cflags "$source_dir/consumer/c_consumer.c" -o "$work/c_consumer" \
    $libs -Wl,-rpath,"$prefix/lib"
"$work/c_consumer" "$work/from_c.mvlog"

# shellcheck disable=SC2086
"$CXX" -std=c++17 -Wall -Wextra -Wpedantic -Werror $cflags "$source_dir/consumer/cpp_consumer.cpp" \
    -o "$work/cpp_consumer" $libs -Wl,-rpath,"$prefix/lib"
"$work/cpp_consumer" "$work/from_cpp.mvlog"

"$CMAKE_COMMAND" -S "$source_dir/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$CMAKE_COMMAND" --build "$work/cmake-build" >/dev/null
"$work/cmake-build/cmake_consumer" "$work/from_cmake.mvlog"

echo "install smoke test passed"
