include(${PROJECT_SOURCE_DIR}/cmake/sdk/HalvoProtoSources.cmake)

# hox_add_proto_library(<target> ROOT <folder> PROTOS <file>... [GRPC] [DEPENDS <proto target>...]
#                       [SDK <part> [ARCHIVE_ONLY]])
#
# Generates and compiles the C++ code of the named proto files below ROOT, whose folder is also
# their import root. GRPC adds the service code. DEPENDS names other targets created by this
# function. SDK installs the library, and unless ARCHIVE_ONLY its protos and generated headers.
function(hox_add_proto_library target)
    cmake_parse_arguments(ARG "GRPC;ARCHIVE_ONLY" "ROOT;SDK" "PROTOS;DEPENDS" ${ARGN})
    cmake_path(ABSOLUTE_PATH ARG_ROOT NORMALIZE)
    cmake_path(APPEND_STRING ARG_ROOT "/")
    cmake_path(GET ARG_ROOT PARENT_PATH ARG_ROOT) # without a slash at its end
    set(out ${CMAKE_CURRENT_BINARY_DIR}/gen)
    set(grpc)
    if(ARG_GRPC)
        set(grpc GRPC)
    endif()

    set(roots ${ARG_ROOT})
    foreach(dependency IN LISTS ARG_DEPENDS)
        get_target_property(dependency_roots ${dependency} HOX_PROTO_ROOTS)
        list(APPEND roots ${dependency_roots})
    endforeach()
    list(REMOVE_DUPLICATES roots)

    halvo_proto_sources(generated OUT ${out} ROOT ${ARG_ROOT} PROTOS ${ARG_PROTOS}
        IMPORTS ${roots} ${grpc})
    add_library(${target} STATIC ${generated})
    # Generated files use the same names for what is private to each of them.
    set_target_properties(${target} PROPERTIES HOX_PROTO_ROOTS "${roots}" UNITY_BUILD OFF)
    target_include_directories(${target} SYSTEM PUBLIC
        $<BUILD_INTERFACE:${out}> $<INSTALL_INTERFACE:${HOX_SDK_INCLUDE_DIR}>)
    target_link_libraries(${target} PUBLIC protobuf::libprotobuf ${ARG_DEPENDS})
    if(ARG_GRPC)
        target_link_libraries(${target} PUBLIC gRPC::grpc++)
    endif()
    if(ARG_SDK)
        hox_install_library(${target} ${ARG_SDK})
        if(NOT ARG_ARCHIVE_ONLY)
            hox_install_protos(${ARG_ROOT} ${out} GRPC ${ARG_GRPC} PROTOS ${ARG_PROTOS})
        endif()
    endif()
endfunction()
