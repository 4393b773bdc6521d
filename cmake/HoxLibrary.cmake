# hox_add_library(<target> SOURCES <file>... HEADERS <file>... [PUBLIC <target>...] [PRIVATE <target>...]
#                 [SDK <part>])
#
# A static library of this project: public headers below include/, private ones beside the sources
# in src/. The headers form a verified header set: each compiles by itself (target
# all_verify_interface_header_sets). SDK installs the library with its headers.
function(hox_add_library target)
    cmake_parse_arguments(ARG "" "SDK" "SOURCES;HEADERS;PUBLIC;PRIVATE" ${ARGN})
    if(ARG_SOURCES)
        set(scope PUBLIC)
        add_library(${target} STATIC ${ARG_SOURCES})
        target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
        # The flags are not a part of what is installed.
        target_link_libraries(${target}
            PUBLIC ${ARG_PUBLIC}
            PRIVATE $<BUILD_INTERFACE:hox_build_flags> ${ARG_PRIVATE})
    else()
        set(scope INTERFACE)
        add_library(${target} INTERFACE)
        target_link_libraries(${target} INTERFACE ${ARG_PUBLIC})
    endif()
    # Authors' compilers may have an older standard by default.
    target_compile_features(${target} ${scope} cxx_std_17)
    if(ARG_HEADERS)
        target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS include FILES ${ARG_HEADERS})
        set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
    endif()
    if(ARG_SDK)
        hox_install_library(${target} ${ARG_SDK})
    endif()
endfunction()
