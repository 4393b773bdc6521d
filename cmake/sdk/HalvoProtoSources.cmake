# halvo_proto_sources(<variable> OUT <folder> ROOT <folder> PROTOS <file>... [IMPORTS <folder>...] [GRPC])
#
# Generates the C++ code of the named proto files below ROOT into OUT, and sets the variable to the
# generated files. ROOT and IMPORTS are the import roots. GRPC adds the service code.
function(halvo_proto_sources variable)
    cmake_parse_arguments(ARG "GRPC" "OUT;ROOT" "PROTOS;IMPORTS" ${ARGN})
    file(MAKE_DIRECTORY ${ARG_OUT})
    list(PREPEND ARG_IMPORTS ${ARG_ROOT})
    list(REMOVE_DUPLICATES ARG_IMPORTS)
    list(TRANSFORM ARG_IMPORTS PREPEND "-I")
    set(generated)
    foreach(proto IN LISTS ARG_PROTOS)
        cmake_path(REMOVE_EXTENSION proto LAST_ONLY OUTPUT_VARIABLE stem)
        set(outputs ${ARG_OUT}/${stem}.pb.cc ${ARG_OUT}/${stem}.pb.h)
        set(options --cpp_out=${ARG_OUT})
        if(ARG_GRPC)
            # In protoc's order: Ninja requires the first name in its dependency file to be the
            # first here.
            list(PREPEND outputs ${ARG_OUT}/${stem}.grpc.pb.cc ${ARG_OUT}/${stem}.grpc.pb.h)
            list(APPEND options --grpc_out=${ARG_OUT}
                --plugin=protoc-gen-grpc=$<TARGET_FILE:gRPC::grpc_cpp_plugin>)
        endif()
        add_custom_command(
            OUTPUT ${outputs}
            COMMAND protobuf::protoc ${ARG_IMPORTS} ${options}
                --dependency_out=${ARG_OUT}/${stem}.d ${proto}
            DEPENDS ${ARG_ROOT}/${proto} protobuf::protoc
            DEPFILE ${ARG_OUT}/${stem}.d  # lists the imports
            COMMENT "Generating ${proto}"
            VERBATIM)
        list(APPEND generated ${outputs})
    endforeach()
    set(${variable} ${generated} PARENT_SCOPE)
endfunction()
