# hox_add_test(<target> SOURCES <file>... LIBS <target>... [LABELS <label>...] [TIMEOUT <seconds>])
#
# One GoogleTest program, registered as one CTest test. The label "threads" puts it into the runs under
# ThreadSanitizer.
function(hox_add_test target)
    if(NOT HALVO_BUILD_TESTS)
        return()
    endif()
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    add_executable(${target} ${ARG_SOURCES})
    target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
    target_link_libraries(${target} PRIVATE hox_build_flags ${ARG_LIBS} hox_test_main)
    # The tested code is optimised, the tests are not: optimising them took half of the build time.
    target_compile_options(${target} PRIVATE -O0)
    add_test(NAME ${target} COMMAND ${target})
    # A program ends itself before CTest's limit and names the test that hangs.
    math(EXPR seconds "${ARG_TIMEOUT} - 5")
    set_tests_properties(${target} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "unit;${ARG_LABELS}"
        ENVIRONMENT "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/cmake/tsan.supp halt_on_error=1 history_size=7;LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/cmake/lsan.supp print_suppressions=0;HALVO_TEST_SECONDS=${seconds}")
endfunction()
