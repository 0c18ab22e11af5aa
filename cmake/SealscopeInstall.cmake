# SPDX-License-Identifier: Apache-2.0
# What is installed besides programs and bundles: the contract for people who write plug-ins (headers, libraries, CMake package,
# pkg-config file), the manual page, the completions and the licence.
include(CMakePackageConfigHelpers)

# The contract. Headers are included as they are here: "host/…" and "platform/…".
set(host_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/SealscopeHost")
install(TARGETS sealscope_platform sealscope_host
    EXPORT SealscopeHostTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT libraries NAMELINK_COMPONENT development)
install(DIRECTORY platform host DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/sealscope" COMPONENT development FILES_MATCHING PATTERN "*.h")
install(EXPORT SealscopeHostTargets NAMESPACE sealscope:: DESTINATION "${host_cmake_dir}" COMPONENT development)
configure_package_config_file(cmake/SealscopeHostConfig.cmake.in "${PROJECT_BINARY_DIR}/SealscopeHostConfig.cmake"
    INSTALL_DESTINATION "${host_cmake_dir}" PATH_VARS CMAKE_INSTALL_INCLUDEDIR SEALSCOPE_PLUGIN_DIR)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/SealscopeHostConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/SealscopeHostConfig.cmake" "${PROJECT_BINARY_DIR}/SealscopeHostConfigVersion.cmake"
    cmake/SealscopeBundle.cmake DESTINATION "${host_cmake_dir}" COMPONENT development)
install(DIRECTORY cmake/bundle DESTINATION "${host_cmake_dir}" COMPONENT development)

# Paths in the pkg-config file count from the file itself, so that an installation may be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" OUTPUT_VARIABLE prefix_from_pc)
configure_file(cmake/sealscope-host.pc.in "${PROJECT_BINARY_DIR}/sealscope-host.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/sealscope-host.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

# For the people at the terminal. Debian compresses manual pages, has documents of each package in a folder of its own, and keeps
# what packages bring apart from what is installed by hand: SealscopePackage.cmake sees to those.
set(zsh_functions "vendor-completions")
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(zsh_functions "site-functions")
    install(FILES docs/sealscope.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
    if(SEALSCOPE_PYTHON)
        install(FILES docs/sealscope-cluster.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT python)
    endif()
    install(FILES LICENSE CHANGELOG.md docs/plugins.md DESTINATION "${CMAKE_INSTALL_DOCDIR}")
endif()
if(SEALSCOPE_DESKTOP)
    # What the desktop session finds the window by.
    install(FILES packaging/desktop/sealscope-desktop.desktop DESTINATION "${CMAKE_INSTALL_DATADIR}/applications" COMPONENT desktop)
    string(TIMESTAMP release_date "%Y-%m-%d" UTC)
    set(metainfo "${PROJECT_BINARY_DIR}/packaging/example.sealscope.Sealscope.metainfo.xml")
    configure_file(packaging/desktop/sealscope-desktop.metainfo.xml.in "${metainfo}" @ONLY)
    install(FILES "${metainfo}" DESTINATION "${CMAKE_INSTALL_DATADIR}/metainfo" COMPONENT desktop)
    install(FILES packaging/desktop/sealscope-desktop.xml DESTINATION "${CMAKE_INSTALL_DATADIR}/mime/packages" COMPONENT desktop)
    install(FILES app/desktop/resources/sealscope-desktop.svg DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps"
        COMPONENT desktop)
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        install(FILES docs/sealscope-desktop.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT desktop)
    endif()
endif()
install(FILES completions/sealscope.bash DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME sealscope)
install(FILES completions/sealscope.fish DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d")
install(FILES completions/_sealscope DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/${zsh_functions}")
