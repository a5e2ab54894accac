#!/usr/bin/env bash
# package_smoke.sh BUILD_DIR CONSUMER_DIR VERSION
# Runs CPack on BUILD_DIR into a temporary directory, then checks the three
# Debian packages (four when the build has the Python package): their names,
# versions and dependencies, which files each one holds (the copyright file
# and changelog of each, the manual pages of mvlog), that no file is in two of
# them and that lintian finds no error in any. Unpacked together into a
# scratch root, they must serve a C and a C++ program built with pkg-config,
# a CMake project built with find_package(MarivaneLogging), run mvlog and
# import the Python package.
set -euo pipefail

build_dir=$1
consumer_dir=$2
version=$3
: "${CMAKE_COMMAND:=cmake}" "${CPACK_COMMAND:=cpack}" "${CC:=cc}" "${CXX:=c++}"

fail() {
    echo "package smoke test: $*" >&2
    exit 1
}

for tool in dpkg-deb dpkg-shlibdeps dpkg-architecture file pkg-config lintian; do
    command -v "$tool" >/dev/null || fail "$tool is not installed (scripts/install-deps.sh installs it)"
done

work=$(realpath "$(mktemp -d)")
trap 'rm -rf "$work"' EXIT

# ---- build the packages ------------------------------------------------------
if ! "$CPACK_COMMAND" --config "$build_dir/CPackConfig.cmake" -G DEB -B "$work/packages" >"$work/cpack.log" 2>&1; then
    cat "$work/cpack.log" >&2
    fail "cpack failed"
fi

# The library directory the build tree installs to: lib, or the multiarch
# lib/<triplet> of a Debian-layout build.
libdir_name=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build_dir/CMakeCache.txt")
[[ -n $libdir_name ]] || fail "$build_dir/CMakeCache.txt names no CMAKE_INSTALL_LIBDIR"
if grep -q '^MARIVANE_DEBIAN_LAYOUT:BOOL=ON' "$build_dir/CMakeCache.txt"; then
    [[ $libdir_name == lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH) ]] ||
        fail "a Debian-layout build installs its libraries in '$libdir_name', not the multiarch directory"
fi

runtime_pkg=libmarivane-logging4
dev_pkg=libmarivane-logging-dev
tool_pkg=mvlog
python_pkg=python3-marivane-logging
# The build tree packages the Python module when it was configured with it.
with_python=no
if grep -q 'CPACK_COMPONENTS_ALL "[^"]*python' "$build_dir/CPackConfig.cmake"; then
    with_python=yes
fi

package_file() {
    local matches=("$work/packages/$1_${version}_"*.deb)
    [[ ${#matches[@]} -eq 1 && -f ${matches[0]} ]] || fail "expected one package $1_${version}_*.deb, found: ${matches[*]}"
    echo "${matches[0]}"
}
runtime_deb=$(package_file "$runtime_pkg")
dev_deb=$(package_file "$dev_pkg")
tool_deb=$(package_file "$tool_pkg")
python_debs=()
if [[ $with_python == yes ]]; then
    python_deb=$(package_file "$python_pkg")
    python_debs=("$python_deb")
fi

# ---- control fields ----------------------------------------------------------
# has_dependency DEPENDS NAME: NAME is one of the comma-separated entries.
has_dependency() {
    [[ ", $1," =~ ,\ "$2"[\ ,] ]]
}

check_control() {
    local deb=$1 name=$2
    local field
    field=$(dpkg-deb -f "$deb" Package)
    [[ $field == "$name" ]] || fail "$deb: Package is '$field', expected '$name'"
    field=$(dpkg-deb -f "$deb" Version)
    [[ $field == "$version" ]] || fail "$deb: Version is '$field', expected '$version'"
    field=$(dpkg-deb -f "$deb" Architecture)
    [[ $field == "$(dpkg --print-architecture)" ]] || fail "$deb: Architecture is '$field'"
}
check_control "$runtime_deb" "$runtime_pkg"
check_control "$dev_deb" "$dev_pkg"
check_control "$tool_deb" "$tool_pkg"
if [[ $with_python == yes ]]; then
    check_control "$python_deb" "$python_pkg"
    python_depends=$(dpkg-deb -f "$python_deb" Depends)
    echo "$python_pkg Depends: $python_depends"
    [[ ", $python_depends," == *", $runtime_pkg (= $version),"* ]] ||
        fail "$python_pkg does not depend on '$runtime_pkg (= $version)'"
    has_dependency "$python_depends" python3-numpy || fail "$python_pkg does not depend on python3-numpy"
    # The native module is built for this interpreter's minor version: the
    # range allows its point releases and no other minor version.
    python_minor=$(/usr/bin/python3 -c 'import sys; print(f"{sys.version_info[0]}.{sys.version_info[1]}")')
    python_next=$(/usr/bin/python3 -c 'import sys; print(f"{sys.version_info[0]}.{sys.version_info[1] + 1}")')
    has_dependency "$python_depends" "python3 (>= $python_minor~)" ||
        fail "$python_pkg does not depend on 'python3 (>= $python_minor~)'"
    has_dependency "$python_depends" "python3 (<< $python_next)" ||
        fail "$python_pkg does not depend on 'python3 (<< $python_next)'"
    python_suggests=$(dpkg-deb -f "$python_deb" Suggests)
    echo "$python_pkg Suggests: $python_suggests"
    for suggested in python3-pandas python3-dask python3-matplotlib; do
        has_dependency "$python_suggests" "$suggested" || fail "$python_pkg does not suggest $suggested"
    done
fi

runtime_depends=$(dpkg-deb -f "$runtime_deb" Depends)
dev_depends=$(dpkg-deb -f "$dev_deb" Depends)
tool_depends=$(dpkg-deb -f "$tool_deb" Depends)
echo "$runtime_pkg Depends: $runtime_depends"
echo "$dev_pkg Depends: $dev_depends"
echo "$tool_pkg Depends: $tool_depends"

for dependency in libsqlite3-0 libzstd1 libstdc++6 libc6; do
    has_dependency "$runtime_depends" "$dependency" || fail "$runtime_pkg does not depend on $dependency"
done
exact_runtime="$runtime_pkg (= $version)"
[[ ", $dev_depends," == *", $exact_runtime,"* ]] || fail "$dev_pkg does not depend on '$exact_runtime'"
has_dependency "$tool_depends" "$runtime_pkg" || fail "$tool_pkg does not depend on $runtime_pkg"
if has_dependency "$tool_depends" "$dev_pkg"; then
    fail "$tool_pkg depends on $dev_pkg"
fi

# The runtime package declares its sonames and has dpkg's ldconfig trigger
# run.
dpkg-deb --ctrl-tarfile "$runtime_deb" | tar -x -C "$work" ./shlibs ./triggers 2>/dev/null ||
    fail "$runtime_pkg lacks its shlibs or triggers file"
grep -qx 'activate-noawait ldconfig' "$work/triggers" || fail "$runtime_pkg does not activate the ldconfig trigger"
for soname in "libmarivane-logging 4" "libmarivane-core 1" "libmarivane-database 1"; do
    grep -q "^$soname $runtime_pkg" "$work/shlibs" || fail "$runtime_pkg's shlibs lacks '$soname'"
done

# ---- contents ----------------------------------------------------------------
unpack() {
    mkdir -p "$work/only/$2"
    dpkg -x "$1" "$work/only/$2"
}
unpack "$runtime_deb" runtime
unpack "$dev_deb" dev
unpack "$tool_deb" tool
if [[ $with_python == yes ]]; then
    unpack "$python_deb" python
    expect_python=(usr/lib/python3/dist-packages/marivane_logging/__init__.py
        usr/lib/python3/dist-packages/marivane_logging/py.typed)
    for path in "${expect_python[@]}"; do
        [[ -e $work/only/python/$path ]] || fail "python package lacks /$path"
    done
    compgen -G "$work/only/python/usr/lib/python3/dist-packages/marivane_logging/_core*.so" >/dev/null ||
        fail "python package lacks the native module"
fi

expect() {
    local component=$1
    shift
    for path in "$@"; do
        [[ -e $work/only/$component/$path || -L $work/only/$component/$path ]] || fail "$component package lacks /$path"
    done
}
lib=usr/$libdir_name
expect runtime $lib/libmarivane-logging.so.4 $lib/libmarivane-core.so.1 $lib/libmarivane-database.so.1
expect dev $lib/libmarivane-logging.so $lib/libmarivane-core.so $lib/libmarivane-database.so \
    usr/include/logging/MV_Logging.h usr/include/logging/Logging.h usr/include/core usr/include/database \
    $lib/pkgconfig/marivane-logging.pc \
    $lib/cmake/MarivaneLogging/MarivaneLoggingConfig.cmake \
    $lib/cmake/MarivaneLogging/MarivaneLoggingConfigVersion.cmake \
    $lib/cmake/MarivaneLogging/MarivaneLoggingTargets.cmake
expect tool usr/bin/mvlog
[[ -x $work/only/tool/usr/bin/mvlog ]] || fail "/usr/bin/mvlog is not executable"
[[ ! -e $work/only/runtime/usr/include && ! -e $work/only/runtime/$lib/libmarivane-logging.so ]] ||
    fail "$runtime_pkg holds development files"

# Each package: /usr/share/doc/<package>/ with the copyright file and the
# changelog.
for pair in "runtime:$runtime_pkg" "dev:$dev_pkg" "tool:$tool_pkg" ${python_debs:+"python:$python_pkg"}; do
    component=${pair%%:*}
    name=${pair##*:}
    expect "$component" "usr/share/doc/$name/copyright" "usr/share/doc/$name/changelog.gz"
    grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' \
        "$work/only/$component/usr/share/doc/$name/copyright" || fail "$name's copyright file is not machine-readable"
    gzip -dc "$work/only/$component/usr/share/doc/$name/changelog.gz" >"$work/changelog"
    [[ $(head -n 1 "$work/changelog") == "libmarivane-logging ($version) "* ]] ||
        fail "$name's changelog does not start with version $version"
done

# The tool package has a manual page for mvlog and for each of its commands.
mvlog_commands=$(LD_LIBRARY_PATH=$work/only/runtime/$lib "$work/only/tool/usr/bin/mvlog" --help |
    sed -n '/^Subcommands:/,$s/^  \([a-z][a-z-]*\)  .*/\1/p')
[[ -n $mvlog_commands ]] || fail "the packaged mvlog --help lists no commands"
expect tool usr/share/man/man1/mvlog.1.gz
for command in $mvlog_commands; do
    expect tool "usr/share/man/man1/mvlog-$command.1.gz"
    gzip -dc "$work/only/tool/usr/share/man/man1/mvlog-$command.1.gz" >"$work/manual"
    grep -q "^mvlog-$command \\\\- " "$work/manual" || fail "mvlog-$command.1 has no NAME line for the command"
done
[[ ! -e $work/only/runtime/usr/bin ]] || fail "$runtime_pkg holds programs"

# Nothing but directories may be in two packages: dpkg refuses such a pair.
shared=$(cd "$work/only" && for component in runtime dev tool ${python_debs:+python}; do (cd "$component" && find . ! -type d); done | sort | uniq -d)
[[ -z $shared ]] || fail "files in more than one package: $shared"

# The -dev package needs SQLite's or zstd's development package only when its
# headers or its pkg-config file use them.
dev_root=$work/only/dev/usr
for pair in "sqlite3:libsqlite3-dev" "zstd:libzstd-dev"; do
    module=${pair%%:*}
    dev_dependency=${pair##*:}
    needed=no
    if grep -rqE "#[[:space:]]*include[[:space:]]*[<\"]$module\.h[>\"]" "$dev_root/include" ||
        grep -qE "^Requires.*\b(lib)?$module\b" "$dev_root/$libdir_name/pkgconfig/marivane-logging.pc"; then
        needed=yes
    fi
    if [[ $needed == yes ]]; then
        has_dependency "$dev_depends" "$dev_dependency" || fail "$dev_pkg needs $dev_dependency: its files use $module"
    else
        if has_dependency "$dev_depends" "$dev_dependency"; then
            fail "$dev_pkg depends on $dev_dependency, which nothing in it uses"
        fi
    fi
done

# ---- lintian -----------------------------------------------------------------
# Errors fail the check; warnings are printed for whoever reads the log.
for deb in "$runtime_deb" "$dev_deb" "$tool_deb" "${python_debs[@]}"; do
    # lintian exits with 1 when it finds errors, with more when it cannot run.
    lintian_status=0
    lintian --tag-display-limit 0 "$deb" >"$work/lintian.log" 2>&1 || lintian_status=$?
    if ((lintian_status > 1)); then
        cat "$work/lintian.log" >&2
        fail "lintian could not check $(basename "$deb")"
    fi
    grep -E '^[EWI]: ' "$work/lintian.log" || true
    if grep -q '^E: ' "$work/lintian.log"; then
        fail "lintian finds errors in $(basename "$deb")"
    fi
done

# ---- consumers against the unpacked packages -----------------------------------
root=$work/root
mkdir -p "$root"
for deb in "$runtime_deb" "$dev_deb" "$tool_deb" "${python_debs[@]}"; do
    dpkg -x "$deb" "$root"
done
libdir=$root/usr/$libdir_name

export PKG_CONFIG_PATH=$libdir/pkgconfig
cflags=$(pkg-config --cflags marivane-logging)
libs=$(pkg-config --libs marivane-logging)
# The .pc file locates the prefix from its own place: the flags must name the
# unpacked directories.
pkg_config_dir() {
    local flag
    for flag in $2; do
        if [[ $flag == "$1"* ]]; then
            realpath -m "${flag#"$1"}"
            return
        fi
    done
}
[[ $(pkg_config_dir -I "$cflags") == "$root/usr/include" ]] ||
    fail "pkg-config gives '$cflags', not the unpacked include directory"
[[ $(pkg_config_dir -L "$libs") == "$libdir" ]] || fail "pkg-config gives '$libs', not the unpacked library directory"

# uses_unpacked PROGRAM: the program loads the logging library from the root.
uses_unpacked() {
    local resolved
    resolved=$(LD_LIBRARY_PATH=$libdir ldd "$1")
    [[ $resolved == *"$libdir/libmarivane-logging.so.4"* ]] ||
        fail "$1 does not load the unpacked library:"$'\n'"$resolved"
}

# shellcheck disable=SC2086
"$CC" -std=c99 -Wall -Wextra -Wpedantic -Werror $cflags "$consumer_dir/c_consumer.c" -o "$work/c_consumer" $libs ||
    fail "the C program does not build against the packages"
uses_unpacked "$work/c_consumer"
LD_LIBRARY_PATH=$libdir "$work/c_consumer" "$work/from_c.mvlog" || fail "the C program failed"

# shellcheck disable=SC2086
"$CXX" -std=c++17 -Wall -Wextra -Wpedantic -Werror $cflags "$consumer_dir/cpp_consumer.cpp" \
    -o "$work/cpp_consumer" $libs || fail "the C++ program does not build against the packages"
uses_unpacked "$work/cpp_consumer"
LD_LIBRARY_PATH=$libdir "$work/cpp_consumer" "$work/from_cpp.mvlog" || fail "the C++ program failed"

"$CMAKE_COMMAND" -S "$consumer_dir" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$root/usr" \
    >"$work/cmake-consumer.log" 2>&1 || { cat "$work/cmake-consumer.log" >&2; fail "the CMake project does not configure"; }
package_dir=$(sed -n 's/^MarivaneLogging_DIR:PATH=//p' "$work/cmake-build/CMakeCache.txt")
[[ $package_dir == "$libdir/cmake/MarivaneLogging" ]] || fail "find_package found '$package_dir', not the unpacked package"
"$CMAKE_COMMAND" --build "$work/cmake-build" >>"$work/cmake-consumer.log" 2>&1 ||
    { cat "$work/cmake-consumer.log" >&2; fail "the CMake project does not build"; }
uses_unpacked "$work/cmake-build/cmake_consumer"
LD_LIBRARY_PATH=$libdir "$work/cmake-build/cmake_consumer" "$work/from_cmake.mvlog" || fail "the CMake program failed"

# ---- the packaged tool -----------------------------------------------------------
mvlog=$root/usr/bin/mvlog
uses_unpacked "$mvlog"
tool_version=$(LD_LIBRARY_PATH=$libdir "$mvlog" --version) || fail "mvlog --version failed"
[[ $tool_version == *"$version"* ]] || fail "mvlog --version says '$tool_version', expected version $version"
LD_LIBRARY_PATH=$libdir "$mvlog" info "$work/from_c.mvlog" >/dev/null || fail "mvlog info on the C program's file failed"

# The packaged Python module finds the packaged library beside it.
if [[ $with_python == yes ]]; then
    PYTHONPATH=$root/usr/lib/python3/dist-packages /usr/bin/python3 -c "
import sys, marivane_logging as ml
assert ml.__file__.startswith('$root'), ml.__file__
with ml.LogFile.open(sys.argv[1]) as f:
    assert len(f) > 0
" "$work/from_c.mvlog" || fail "the packaged Python module does not read the C program's file"
    # python3 -m marivane_logging runs mvlog's own commands from the module.
    module_info=$(PYTHONPATH=$root/usr/lib/python3/dist-packages LD_LIBRARY_PATH=$libdir \
        /usr/bin/python3 -m marivane_logging info "$work/from_c.mvlog") ||
        fail "python3 -m marivane_logging info failed with the packages"
    tool_info=$(LD_LIBRARY_PATH=$libdir "$mvlog" info "$work/from_c.mvlog")
    [[ $module_info == "$tool_info" ]] || fail "python3 -m marivane_logging info differs from the packaged mvlog info"
fi

echo "package smoke test passed: $(basename "$runtime_deb") $(basename "$dev_deb") $(basename "$tool_deb")${python_deb:+ $(basename "$python_deb")}"
