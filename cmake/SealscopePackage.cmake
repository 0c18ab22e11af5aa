# SPDX-License-Identifier: Apache-2.0
# Debian packages, made by cpack from a build that is configured for /usr (the preset "package"):
#   sealscope            program, plug-in, texts, manual page, completions
#   libsealscope-host1   the shared libraries; its number is the version of the plug-in contract
#   libsealscope-dev     headers, CMake package and pkg-config file for plug-ins
#   sealscope-desktop    the window, where it is built
#   python3-sealscope    the Python package, and the command sealscope-cluster; where pybind11 is there
set(library_package "libsealscope-host${SEALSCOPE_CONTRACT_VERSION}")
find_program(gzip_program gzip REQUIRED)

# Compressed without names and times, so that the same sources give the same packages.
function(sealscope_install_compressed source name destination component)
    set(compressed "${PROJECT_BINARY_DIR}/packaging/${component}/${name}.gz")
    get_filename_component(folder "${compressed}" DIRECTORY)
    file(MAKE_DIRECTORY "${folder}")
    execute_process(COMMAND "${gzip_program}" -9n -c "${source}" OUTPUT_FILE "${compressed}" COMMAND_ERROR_IS_FATAL ANY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${source}")
    install(FILES "${compressed}" DESTINATION "${destination}" COMPONENT ${component})
endfunction()

# The changelog in Debian's form; its date is that of the sources where SOURCE_DATE_EPOCH tells it.
string(TIMESTAMP debian_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/changelog.in "${PROJECT_BINARY_DIR}/packaging/changelog" @ONLY)
set(packages "runtime:sealscope" "libraries:${library_package}" "development:libsealscope-dev")
if(SEALSCOPE_DESKTOP)
    list(APPEND packages "desktop:sealscope-desktop")
endif()
if(SEALSCOPE_PYTHON)
    list(APPEND packages "python:python3-sealscope")
endif()
foreach(pair IN LISTS packages)
    string(REPLACE ":" ";" pair "${pair}")
    list(GET pair 0 component)
    list(GET pair 1 package)
    set(folder "${CMAKE_INSTALL_DATADIR}/doc/${package}")
    install(FILES packaging/copyright DESTINATION "${folder}" COMPONENT ${component})
    sealscope_install_compressed("${PROJECT_BINARY_DIR}/packaging/changelog" changelog "${folder}" ${component})
endforeach()

sealscope_install_compressed("${PROJECT_SOURCE_DIR}/docs/sealscope.1" sealscope.1 "${CMAKE_INSTALL_MANDIR}/man1" runtime)
if(SEALSCOPE_DESKTOP)
    sealscope_install_compressed("${PROJECT_SOURCE_DIR}/docs/sealscope-desktop.1" sealscope-desktop.1 "${CMAKE_INSTALL_MANDIR}/man1" desktop)
endif()
install(FILES docs/plugins.md DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libsealscope-dev" COMPONENT development)
install(DIRECTORY examples/plugin DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libsealscope-dev/examples" COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sealscope)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package brings its own, as the first line of its description
set(CPACK_PACKAGE_VENDOR "The Sealscope developers")
set(CPACK_PACKAGE_CONTACT "The Sealscope developers <sealscope@sealscope.example>")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime libraries development)
if(SEALSCOPE_DESKTOP)
    list(APPEND CPACK_COMPONENTS_ALL desktop)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME sealscope)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net)
# libpcap is loaded when it is wanted, so that nobody finds it by looking at the program.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION}), libpcap0.8")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "see into the TLS traffic of a packet capture
Reads packet captures, reassembles their TCP connections and shows the TLS
in them: records, handshakes, certificates, and the plaintext where a key log
in the SSLKEYLOGFILE format holds the secrets. Says why where it does not.")

# It draws with Qt's SVG plug-in, has the texts of Qt's own dialogs where they are installed, and asks for the privilege to capture
# through pkexec.
set(CPACK_DEBIAN_DESKTOP_PACKAGE_NAME sealscope-desktop)
set(CPACK_DEBIAN_DESKTOP_PACKAGE_SECTION net)
set(CPACK_DEBIAN_DESKTOP_PACKAGE_DEPENDS "sealscope (= ${PROJECT_VERSION}), ${library_package} (= ${PROJECT_VERSION}), libqt6svg6")
set(CPACK_DEBIAN_DESKTOP_PACKAGE_RECOMMENDS "qt6-translations-l10n, pkexec")
set(CPACK_DEBIAN_DESKTOP_DESCRIPTION "see into the TLS traffic of a packet capture, in a window
Shows the packets of a capture with their fields and bytes, its TCP
connections as conversations, and what they carry where a key log in the
SSLKEYLOGFILE format holds the secrets. Captures from interfaces, too.")

set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME "${library_package}")
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
# The linker's cache is brought up to date by a trigger. cpack would add scripts that do it themselves, unless it is told of other
# ones; these are not there, so the package has none.
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/packaging/triggers" "${PROJECT_BINARY_DIR}/packaging/shlibs"
    "${PROJECT_BINARY_DIR}/packaging/none/postinst" "${PROJECT_BINARY_DIR}/packaging/none/postrm")
file(WRITE "${PROJECT_BINARY_DIR}/packaging/shlibs"
    "libsealscope_host ${SEALSCOPE_CONTRACT_VERSION} ${library_package} (>= ${PROJECT_VERSION})\n"
    "libsealscope_platform ${SEALSCOPE_CONTRACT_VERSION} ${library_package} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_LIBRARIES_DESCRIPTION "contract between sealscope and its plug-ins (shared libraries)
The records and services that the program sealscope and its plug-ins share.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libsealscope-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "contract between sealscope and its plug-ins (development files)
Headers, CMake package and pkg-config file for writing plug-ins that teach
sealscope a protocol.")

if(SEALSCOPE_PYTHON)
    list(APPEND CPACK_COMPONENTS_ALL python)
    sealscope_install_compressed("${PROJECT_SOURCE_DIR}/docs/sealscope-cluster.1" sealscope-cluster.1 "${CMAKE_INSTALL_MANDIR}/man1" python)
    install(FILES docs/scale.md DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/python3-sealscope" COMPONENT python)
    execute_process(COMMAND "${SEALSCOPE_PYTHON_EXECUTABLE}" -c "import sys; print('%d.%d' % sys.version_info[:2], '%d.%d' % (sys.version_info[0], sys.version_info[1] + 1))"
        OUTPUT_VARIABLE python_versions OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE " " ";" python_versions "${python_versions}")
    list(GET python_versions 0 python_version)
    list(GET python_versions 1 next_python_version)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-sealscope)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
    # The bundles are the program's.
    set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
        "python3 (>= ${python_version}), python3 (<< ${next_python_version}), ${library_package} (= ${PROJECT_VERSION}), sealscope (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "python3-distributed")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-pandas")
    set(CPACK_DEBIAN_PYTHON_DESCRIPTION "see into the TLS traffic of packet captures (Python)
Packets, streams, exchanges and plaintext of packet captures as typed rows,
and the same for any number of files on a Dask cluster.")
endif()
include(CPack)
