# hox_add_proto_library(<target> ROOT <folder> PROTOS <file>... [GRPC] [DEPENDS <proto target>...])
#
# Generates and compiles the C++ code of the named proto files below ROOT, whose folder is also
# their import root. GRPC adds the service code. DEPENDS names other targets created by this
# function.
function(hox_add_proto_library target)
    cmake_parse_arguments(ARG "GRPC" "ROOT" "PROTOS;DEPENDS" ${ARGN})
    cmake_path(ABSOLUTE_PATH ARG_ROOT NORMALIZE)
    set(out ${CMAKE_CURRENT_BINARY_DIR}/gen)
    file(MAKE_DIRECTORY ${out})

    set(roots ${ARG_ROOT})
    foreach(dependency IN LISTS ARG_DEPENDS)
        get_target_property(dependency_roots ${dependency} HOX_PROTO_ROOTS)
        list(APPEND roots ${dependency_roots})
    endforeach()
    list(REMOVE_DUPLICATES roots)
    list(TRANSFORM roots PREPEND "-I" OUTPUT_VARIABLE includes)

    set(generated)
    foreach(proto IN LISTS ARG_PROTOS)
        cmake_path(REMOVE_EXTENSION proto LAST_ONLY OUTPUT_VARIABLE stem)
        set(outputs ${out}/${stem}.pb.cc ${out}/${stem}.pb.h)
        set(options --cpp_out=${out})
        if(ARG_GRPC)
            # In protoc's order: Ninja requires the first name in its dependency file to be the
            # first here.
            list(PREPEND outputs ${out}/${stem}.grpc.pb.cc ${out}/${stem}.grpc.pb.h)
            list(APPEND options --grpc_out=${out} --plugin=protoc-gen-grpc=$<TARGET_FILE:gRPC::grpc_cpp_plugin>)
        endif()
        add_custom_command(
            OUTPUT ${outputs}
            COMMAND protobuf::protoc ${includes} ${options} --dependency_out=${out}/${stem}.d ${proto}
            DEPENDS ${ARG_ROOT}/${proto} protobuf::protoc
            DEPFILE ${out}/${stem}.d  # lists the imports
            COMMENT "Generating ${proto}"
            VERBATIM)
        list(APPEND generated ${outputs})
    endforeach()

    add_library(${target} STATIC ${generated})
    # Generated files use the same names for what is private to each of them.
    set_target_properties(${target} PROPERTIES HOX_PROTO_ROOTS "${roots}" UNITY_BUILD OFF)
    target_include_directories(${target} SYSTEM PUBLIC ${out})
    target_link_libraries(${target} PUBLIC protobuf::libprotobuf ${ARG_DEPENDS})
    if(ARG_GRPC)
        target_link_libraries(${target} PUBLIC gRPC::grpc++)
    endif()
endfunction()
