# halvo_generate_obstree(<target> ROOT <folder> PROTOS <file>... [IMPORTS <folder>...])
#
# Makes a static library of the named proto files below ROOT, whose folder is also their import root,
# with their gRPC code. They may import the protos of halvo and those below IMPORTS. A method with an
# incomplete obs_tree_option, and two methods with one address and operation, are errors of the build.
# Include the generated headers as the files are named: "lamp.pb.h", "lamp.grpc.pb.h".
include(${CMAKE_CURRENT_LIST_DIR}/HalvoProtoSources.cmake)

function(halvo_generate_obstree target)
    cmake_parse_arguments(ARG "" "ROOT" "PROTOS;IMPORTS" ${ARGN})
    if(ARG_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR
            "halvo_generate_obstree(${target}): unknown argument ${ARG_UNPARSED_ARGUMENTS}")
    endif()
endfunction()
