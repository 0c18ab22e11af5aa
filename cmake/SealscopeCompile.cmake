# SPDX-License-Identifier: Apache-2.0
# How every target of the project is compiled: standard, warnings, visibility, hardening, sanitizers, reproducible paths.
set(CMAKE_CXX_STANDARD 23)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(CMAKE_CXX_VISIBILITY_PRESET hidden)
    set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
endif()
# Clang would hide each free function that a public header declares inside its exported namespace and a source file defines
# inside the plain one, so nothing is hidden from it.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_LINK_DEPENDS_NO_SHARED ON)
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1 -DNDEBUG")

find_program(SEALSCOPE_CCACHE ccache)
if(SEALSCOPE_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${SEALSCOPE_CCACHE}")
endif()

add_library(sealscope_compile INTERFACE)
add_library(sealscope::compile ALIAS sealscope_compile)
target_compile_options(sealscope_compile INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wimplicit-fallthrough -Werror
    -fstack-protector-strong
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 reports bounds it cannot know in inlined library code.
    target_compile_options(sealscope_compile INTERFACE -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread -Wno-restrict -Wno-maybe-uninitialized -Wno-missing-field-initializers)
    if(CMAKE_UNITY_BUILD)
        # It takes a source file that another one includes for a header, whose unnamed namespaces many would see.
        target_compile_options(sealscope_compile INTERFACE -Wno-subobject-linkage)
        # How much it inlines is a part of what it compiles at a time, and has a bound: without these the program is 5 % slower.
        target_compile_options(sealscope_compile INTERFACE --param=large-unit-insns=400000 --param=inline-unit-growth=200)
    endif()
else()
    # libstdc++ 12's stable_sort calls what C++17 deprecated, and Clang reports it where the template is used.
    target_compile_options(sealscope_compile INTERFACE -Wno-missing-designated-field-initializers -Wno-missing-field-initializers -Wno-deprecated-declarations)
endif()
# What tests is compiled in half the time without optimization, and is not what takes time when it runs.
set(SEALSCOPE_IS_TEST "$<BOOL:$<TARGET_PROPERTY:SEALSCOPE_IS_TEST>>")
target_compile_options(sealscope_compile INTERFACE $<${SEALSCOPE_IS_TEST}:-O0>)
if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT SEALSCOPE_SANITIZE)
    target_compile_options(sealscope_compile INTERFACE $<$<NOT:${SEALSCOPE_IS_TEST}>:-U_FORTIFY_SOURCE> $<$<NOT:${SEALSCOPE_IS_TEST}>:-D_FORTIFY_SOURCE=2>)
endif()
target_link_options(sealscope_compile INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,--no-undefined)

if(SEALSCOPE_SANITIZE)
    # --no-undefined would refuse the sanitizer runtime, which only programs carry.
    set_property(TARGET sealscope_compile PROPERTY INTERFACE_LINK_OPTIONS "")
    target_compile_options(sealscope_compile INTERFACE
        -fsanitize=${SEALSCOPE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
        $<$<NOT:${SEALSCOPE_IS_TEST}>:-O1>)
    target_link_options(sealscope_compile INTERFACE -fsanitize=${SEALSCOPE_SANITIZE})
    # Bundles and their programs share type information across library borders only through exported symbols.
    if(NOT SEALSCOPE_SANITIZE STREQUAL "thread")
        target_compile_options(sealscope_compile INTERFACE -fno-sanitize=vptr,function)
    endif()
endif()
# A hundred programs with debug information take the ordinary linker minutes.
find_program(SEALSCOPE_LLD ld.lld-19)
if(SEALSCOPE_LLD AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_link_options(sealscope_compile INTERFACE "-fuse-ld=${SEALSCOPE_LLD}")
endif()
if(SEALSCOPE_FUZZ)
    target_compile_options(sealscope_compile INTERFACE -fsanitize=fuzzer-no-link)
endif()

# sealscope_headers(sealscope_streams app/streams)
# The headers of one folder, under their path from the top, for the target and for whoever links it, and no other folder's: an
# include against the direction of the arrows does not compile.
function(sealscope_headers target folder)
    set(tree "${PROJECT_BINARY_DIR}/include/${target}")
    cmake_path(GET folder PARENT_PATH parent)
    file(MAKE_DIRECTORY "${tree}/${parent}")
    file(CREATE_LINK "${PROJECT_SOURCE_DIR}/${folder}" "${tree}/${folder}" SYMBOLIC)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "INTERFACE_LIBRARY")
        target_include_directories(${target} INTERFACE "$<BUILD_INTERFACE:${tree}>")
    else()
        target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${tree}>")
    endif()
endfunction()

# The build tree is laid out as an installation is: a program finds libraries, bundles and texts from where it stands itself, by
# one rule, and an installation may be moved. No run path is made but these, since the linker reads an empty entry, as CMake
# pads with, as the current folder: a library that lies beside a capture would be loaded.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_BINDIR}")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_LIBDIR}")
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY "${CMAKE_INSTALL_FULL_BINDIR}" OUTPUT_VARIABLE libraries_from_bin)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    # Among the system's own folders the linker looks by itself, so what is installed has no run path.
    set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
    set(CMAKE_INSTALL_RPATH "")
    set(SEALSCOPE_LIBRARY_RPATH "")
else()
    set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
    set(CMAKE_INSTALL_RPATH "$ORIGIN/${libraries_from_bin}")
    set(SEALSCOPE_LIBRARY_RPATH "$ORIGIN")
endif()
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME runtime)

# Where the bundles of programs lie.
set(SEALSCOPE_PLUGIN_DIR "${CMAKE_INSTALL_LIBDIR}/sealscope/plugins")
set(SEALSCOPE_FULL_PLUGIN_DIR "${CMAKE_INSTALL_FULL_LIBDIR}/sealscope/plugins")
