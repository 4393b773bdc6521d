# hox_add_library(<target> SOURCES <file>... HEADERS <file>... [PUBLIC <target>...] [PRIVATE <target>...])
#
# A static library of this project: public headers below include/, private ones beside the sources
# in src/. The headers form a verified header set: each compiles by itself (target
# all_verify_interface_header_sets).
function(hox_add_library target)
    cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;PUBLIC;PRIVATE" ${ARGN})
    if(ARG_SOURCES)
        set(scope PUBLIC)
        add_library(${target} STATIC ${ARG_SOURCES})
        target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
        target_link_libraries(${target} PUBLIC ${ARG_PUBLIC} PRIVATE hox_build_flags ${ARG_PRIVATE})
    else()
        set(scope INTERFACE)
        add_library(${target} INTERFACE)
        target_link_libraries(${target} INTERFACE ${ARG_PUBLIC})
    endif()
    if(ARG_HEADERS)
        target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS include FILES ${ARG_HEADERS})
        set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
    endif()
endfunction()
