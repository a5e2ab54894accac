# Debian packages, one per install component:
#   runtime      libmarivane-logging4     the three shared libraries
#   development  libmarivane-logging-dev  headers, the unversioned .so links,
#                                         the pkg-config file, the CMake package
#   tool         mvlog                    the command-line tool
#   python       python3-marivane-logging the Python package (MARIVANE_BUILD_PYTHON)
# `cpack -G DEB` in a build directory (or `make package` at the top) writes
# them there. They install under /usr; a plain `cmake --install` keeps its own
# prefix and installs every component.

set(MARIVANE_PACKAGE_CONTACT "libmarivane-logging maintainers <maintainers@marivane.invalid>"
    CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_PACKAGE_NAME libmarivane-logging)
set(CPACK_PACKAGE_VENDOR "libmarivane-logging")
set(CPACK_PACKAGE_CONTACT "${MARIVANE_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
# Stripped like any distribution binary; -DCPACK_STRIP_FILES=OFF keeps symbols.
if(NOT DEFINED CPACK_STRIP_FILES)
    set(CPACK_STRIP_FILES ON)
endif()

# `package_source` exists as soon as CPack does: keep build trees out of it.
set(CPACK_SOURCE_GENERATOR TXZ)
set(CPACK_SOURCE_IGNORE_FILES "/\\\\.git/" "/build[^/]*/" "/\\\\.cache/")

set(CPACK_COMPONENTS_ALL runtime development)
if(MARIVANE_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
if(TARGET marivane_python_core)
    list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# Each package's control text is the project's summary line followed by its
# component's paragraph (lines without leading spaces).
set(CPACK_COMPONENT_RUNTIME_DISPLAY_NAME "Shared libraries")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Shared libraries: libmarivane-logging, which records and replays log files
of several data sources (each file an SQLite 3 database of timestamped,
compressed payloads), with its companions libmarivane-core (compression,
file helpers) and libmarivane-database (SQLite access).")
set(CPACK_COMPONENT_DEVELOPMENT_DISPLAY_NAME "Development files")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Development files: the C and C++ headers, the pkg-config file
marivane-logging.pc and the CMake package MarivaneLogging
(find_package(MarivaneLogging) gives Marivane::Logging).")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOL_DISPLAY_NAME "mvlog")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "The mvlog command-line tool: describes, checks, prints, exports, slices,
merges, clones and replays log files, edits their bookmarks and records a
synthetic demo survey.")
set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
set(CPACK_COMPONENT_PYTHON_DISPLAY_NAME "Python package")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
    "The Python 3 package marivane_logging: reads, writes, slices, copies,
merges and replays log files from Python, with numpy and pandas indexes,
Dask functions for fleets of files and a timeline picture.")
set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libmarivane-logging4)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libmarivane-logging-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME mvlog)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-marivane-logging)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
# The native module (_core.cpython-3XY-<triplet>.so) is built against one
# minor version's ABI, and pybind11 has no stable-ABI build: that version, and
# only it, is a real requirement, in the form Debian gives extension modules
# (">= 3.X~, << 3.X+1"). numpy is imported by the package itself; pandas,
# Dask and matplotlib only by the functions that use them.
if(MARIVANE_PYTHON_EXECUTABLE)
    execute_process(COMMAND ${MARIVANE_PYTHON_EXECUTABLE} -c
            "import sys; print(f'{sys.version_info[0]}.{sys.version_info[1]};{sys.version_info[0]}.{sys.version_info[1] + 1}')"
        OUTPUT_VARIABLE _marivane_python_versions OUTPUT_STRIP_TRAILING_WHITESPACE)
    list(GET _marivane_python_versions 0 _marivane_python_minor)
    list(GET _marivane_python_versions 1 _marivane_python_next)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
        "python3 (>= ${_marivane_python_minor}~), python3 (<< ${_marivane_python_next}), python3-numpy")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS
        "python3-pandas, python3-dask, python3-distributed, python3-matplotlib")
endif()
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# The component dependencies above become "libmarivane-logging4 (= <version>)".
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# dpkg-shlibdeps adds the Debian libraries the binaries link (libsqlite3-0,
# libzstd1, libstdc++6, ...). The public headers and the pkg-config file use
# neither SQLite's nor zstd's headers or link flags, so the -dev package needs
# no -dev packages of them. mvlog needs the project's own libraries, which no
# installed package describes: dpkg-shlibdeps finds them in the build tree and
# leaves them to the component dependency.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
get_target_property(_marivane_library_dir marivane-logging LIBRARY_OUTPUT_DIRECTORY)
if(NOT _marivane_library_dir)
    get_target_property(_marivane_library_dir marivane-logging BINARY_DIR)
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${_marivane_library_dir})
unset(_marivane_library_dir)
# The runtime package says which sonames it provides (DEBIAN/shlibs) and has
# dpkg's ldconfig trigger run when installed.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
configure_file(${PROJECT_SOURCE_DIR}/packaging/libmarivane-logging4.triggers
    ${CMAKE_CURRENT_BINARY_DIR}/packaging/runtime/triggers COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/packaging/runtime/triggers)

# Every package carries the copyright file and the changelog in
# /usr/share/doc/<package>/, as Debian policy asks.
set(_marivane_doc_dir ${CMAKE_CURRENT_BINARY_DIR}/packaging/doc)
configure_file(${PROJECT_SOURCE_DIR}/packaging/copyright.in ${_marivane_doc_dir}/copyright @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${_marivane_doc_dir}/changelog @ONLY)
add_custom_command(OUTPUT ${_marivane_doc_dir}/changelog.gz
    COMMAND gzip -9n -c ${_marivane_doc_dir}/changelog > ${_marivane_doc_dir}/changelog.gz
    DEPENDS ${_marivane_doc_dir}/changelog
    COMMENT "Compressing the package changelog")
add_custom_target(marivane-package-docs ALL DEPENDS ${_marivane_doc_dir}/changelog.gz)
foreach(_marivane_component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${_marivane_component} _marivane_upper)
    install(FILES ${_marivane_doc_dir}/copyright ${_marivane_doc_dir}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${_marivane_upper}_PACKAGE_NAME}
        COMPONENT ${_marivane_component})
endforeach()

include(CPack)
