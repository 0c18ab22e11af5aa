# SPDX-License-Identifier: Apache-2.0
# One line per test, fuzz target and benchmark; each mirrors the path of what it exercises.

# Twins and writers that stand beside the tests, for fuzz targets and benchmarks too.
add_library(sealscope_test_headers INTERFACE)
sealscope_headers(sealscope_test_headers tests)

# sealscope_test(streams/ReassemblerTest.cpp LINK sealscope::streams [LABELS slow])
# A GoogleTest program, one CTest test per program.
function(sealscope_test source)
    cmake_parse_arguments(ARG "" "" "LINK;LABELS" ${ARGN})
    get_filename_component(name "${source}" NAME_WE)
    add_executable(${name} "${source}")
    target_link_libraries(${name} PRIVATE sealscope::compile sealscope_test_support ${ARG_LINK} GTest::gtest GTest::gmock GTest::gtest_main)
    target_compile_definitions(${name} PRIVATE SEALSCOPE_SOURCE_DIR="${PROJECT_SOURCE_DIR}" SEALSCOPE_BINARY_DIR="${PROJECT_BINARY_DIR}")
    set_target_properties(${name} PROPERTIES SEALSCOPE_IS_TEST ON)
    target_precompile_headers(${name} REUSE_FROM sealscope_test_pch)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300 LABELS "${ARG_LABELS}")
endfunction()

# The suites that a file declares, and the option that lets a test program run no others.
function(sealscope_suites source suites filter)
    file(STRINGS "${source}" found REGEX "^(TEST|TEST_F|TEST_P)\\(")
    list(TRANSFORM found REPLACE "^[A-Z_]+\\(([A-Za-z0-9_]+),.*" "\\1")
    list(REMOVE_DUPLICATES found)
    set(${suites} ${found} PARENT_SCOPE)
    list(TRANSFORM found REPLACE "(.+)" "\\1.*:*/\\1.*")
    list(JOIN found ":" names)
    set(${filter} "--gtest_filter=${names}" PARENT_SCOPE)
endfunction()

# sealscope_tests(CommandTests SOURCES CommandLineTest.cpp FollowCommandTest.cpp LINK sealscope_test_program)
# One program of several test files, which are compiled together and so in half the time, and a CTest test for each file: it runs
# the suites that the file declares, so no two files of a program declare the same one.
function(sealscope_tests program)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    add_executable(${program} ${ARG_SOURCES})
    target_link_libraries(${program} PRIVATE sealscope::compile sealscope_test_support ${ARG_LINK} GTest::gtest GTest::gmock GTest::gtest_main)
    target_compile_definitions(${program} PRIVATE SEALSCOPE_SOURCE_DIR="${PROJECT_SOURCE_DIR}" SEALSCOPE_BINARY_DIR="${PROJECT_BINARY_DIR}")
    set_target_properties(${program} PROPERTIES SEALSCOPE_IS_TEST ON)
    target_precompile_headers(${program} REUSE_FROM sealscope_test_pch)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ARG_SOURCES})
    set(declared "")
    foreach(source IN LISTS ARG_SOURCES)
        get_filename_component(name "${source}" NAME_WE)
        sealscope_suites("${source}" suites filter)
        foreach(suite IN LISTS suites)
            if(suite IN_LIST declared)
                message(FATAL_ERROR "${source}: another file of ${program} declares the suite ${suite}, which would run twice")
            endif()
            list(APPEND declared ${suite})
        endforeach()
        add_test(NAME ${name} COMMAND ${program} "${filter}")
        set_tests_properties(${name} PROPERTIES TIMEOUT 300)
    endforeach()
endfunction()

# sealscope_fuzz(capture/CaptureReaderFuzz.cpp LINK sealscope::capture)
# With BUILT_ONLY it has a finding that is not mended yet, and runs by hand alone.
# A libFuzzer program with the seed corpus fuzz/corpus/<name>, and a CTest test that runs it for SEALSCOPE_FUZZ_SECONDS.
set(SEALSCOPE_FUZZ_SECONDS 6 CACHE STRING "How long each fuzz test runs")
function(sealscope_fuzz source)
    cmake_parse_arguments(ARG "BUILT_ONLY" "" "LINK" ${ARGN})
    get_filename_component(name "${source}" NAME_WE)
    add_executable(${name} "${source}")
    target_link_libraries(${name} PRIVATE sealscope::compile sealscope_fuzz_support sealscope_test_headers ${ARG_LINK})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    if(ARG_BUILT_ONLY)
        return()
    endif()
    add_test(NAME ${name} COMMAND "${PROJECT_SOURCE_DIR}/scripts/fuzz" --binary $<TARGET_FILE:${name}> --seconds ${SEALSCOPE_FUZZ_SECONDS})
    set_tests_properties(${name} PROPERTIES LABELS fuzz TIMEOUT 1200)
endfunction()

# sealscope_bench(streams/ReassemblerBench.cpp LINK sealscope::streams)
# A Google Benchmark program.
function(sealscope_bench source)
    cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
    get_filename_component(name "${source}" NAME_WE)
    add_executable(${name} "${source}")
    target_link_libraries(${name} PRIVATE sealscope::compile sealscope_test_headers ${ARG_LINK} benchmark::benchmark benchmark::benchmark_main)
endfunction()
