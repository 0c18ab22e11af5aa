# SPDX-License-Identifier: Apache-2.0
# How a plug-in becomes a bundle: a folder with the loadable module, its information dictionary and its string tables.
# Used by the project's own plug-ins, and installed for those that are built outside it.

# The files that the functions below need, and the version of the contract that this tree or installation is for.
set(SEALSCOPE_BUNDLE_FILES "${CMAKE_CURRENT_LIST_DIR}/bundle")
file(STRINGS "${SEALSCOPE_HOST_HEADERS}/host/VELDependencies/VELPluginPrincipalClassProtocol.h" contract REGEX "velContractVersion = [0-9]+")
string(REGEX REPLACE ".*= ([0-9]+).*" "\\1" SEALSCOPE_CONTRACT_VERSION "${contract}")

# sealscope_bundle(Mail
#     SOURCES MailPlugIn.cpp …     one of them defines velBundleEntry
#     IDENTIFIER org.example.mail  unique among all plug-ins
#     PRINCIPAL_CLASS MailPlugIn
#     [VERSION 1.4] [BUILD 27]     shown as "1.4 (27)"
#     [LINK …]                     further libraries; sealscope::host is linked always
#     [STREAMS_ONLY]               it has nothing to say of single packets
#     [RESOURCES folder]           holds <language>.lproj/<table>.json
#     [DIRECTORY folder])          where Mail.bundle is made, ${CMAKE_CURRENT_BINARY_DIR} by default
# The module exports velBundleEntry alone.
function(sealscope_bundle name)
    cmake_parse_arguments(ARG "STREAMS_ONLY" "IDENTIFIER;PRINCIPAL_CLASS;VERSION;BUILD;RESOURCES;DIRECTORY" "SOURCES;LINK" ${ARGN})
    foreach(needed IDENTIFIER PRINCIPAL_CLASS SOURCES)
        if(NOT ARG_${needed})
            message(FATAL_ERROR "sealscope_bundle(${name}): ${needed} is missing")
        endif()
    endforeach()
    if(NOT ARG_VERSION)
        set(ARG_VERSION "1.0")
    endif()
    if(NOT ARG_BUILD)
        set(ARG_BUILD "1")
    endif()
    if(NOT ARG_DIRECTORY)
        set(ARG_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}")
    endif()
    set(bundle "${ARG_DIRECTORY}/${name}.bundle")

    add_library(${name} MODULE ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE sealscope::host ${ARG_LINK})
    set(exports "${SEALSCOPE_BUNDLE_FILES}/BundleExports.map")
    target_link_options(${name} PRIVATE "-Wl,--version-script=${exports}")
    # The host's libraries are in the process already when it loads a module: it has no run path, and none can be wrong.
    set_target_properties(${name} PROPERTIES
        PREFIX "" SUFFIX ".so" LIBRARY_OUTPUT_DIRECTORY "${bundle}" BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH ""
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON POSITION_INDEPENDENT_CODE ON LINK_DEPENDS "${exports}"
        SEALSCOPE_BUNDLE "${bundle}")

    set(streams_only "false")
    if(ARG_STREAMS_ONLY)
        set(streams_only "true")
    endif()
    configure_file("${SEALSCOPE_BUNDLE_FILES}/Info.json.in" "${bundle}/Info.json" @ONLY)
    if(ARG_RESOURCES)
        get_filename_component(resources "${ARG_RESOURCES}" ABSOLUTE)
        file(GLOB_RECURSE tables CONFIGURE_DEPENDS RELATIVE "${resources}" "${resources}/*.json")
        foreach(table IN LISTS tables)
            configure_file("${resources}/${table}" "${bundle}/Resources/${table}" COPYONLY)
        endforeach()
    endif()
endfunction()

# sealscope_install_bundle(Mail DESTINATION lib/sealscope/plugins [COMPONENT name])
# Installs the whole folder.
function(sealscope_install_bundle name)
    cmake_parse_arguments(ARG "" "DESTINATION;COMPONENT" "" ${ARGN})
    if(ARG_COMPONENT)
        set(component COMPONENT "${ARG_COMPONENT}")
    endif()
    get_target_property(bundle ${name} SEALSCOPE_BUNDLE)
    install(TARGETS ${name} LIBRARY DESTINATION "${ARG_DESTINATION}/${name}.bundle" ${component})
    install(FILES "${bundle}/Info.json" DESTINATION "${ARG_DESTINATION}/${name}.bundle" ${component})
    if(EXISTS "${bundle}/Resources")
        install(DIRECTORY "${bundle}/Resources" DESTINATION "${ARG_DESTINATION}/${name}.bundle" ${component})
    endif()
endfunction()
