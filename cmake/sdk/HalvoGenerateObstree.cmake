include(${CMAKE_CURRENT_LIST_DIR}/HalvoProtoSources.cmake)
set(_halvo_check_script ${CMAKE_CURRENT_LIST_DIR}/HalvoCheckObstree.cmake)

# Ends the configuration if the arguments of halvo_generate_obstree() are not complete.
function(_halvo_check_arguments call root protos unknown)
    if(unknown)
        message(FATAL_ERROR "${call}: unknown argument ${unknown}")
    endif()
    if(NOT protos)
        message(FATAL_ERROR "${call}: PROTOS names no file")
    endif()
    foreach(proto IN LISTS protos)
        if(NOT EXISTS "${root}/${proto}" OR IS_DIRECTORY "${root}/${proto}")
            message(FATAL_ERROR "${call}: there is no file ${root}/${proto}")
        endif()
    endforeach()
endfunction()

# halvo_generate_obstree(<target> PROTOS <file>... [ROOT <folder>] [IMPORTS <folder>...])
#
# Makes a static library of the named proto files below ROOT (default: the current folder), with their
# gRPC code. ROOT is also their import root; they may import the protos of halvo and those below
# IMPORTS. The build fails if the obs_tree_option of a method has no key or no type, or if two methods
# of a service have the same ones. The generated headers have the names of the files: lamp.proto makes
# "lamp.pb.h" and "lamp.grpc.pb.h".
function(halvo_generate_obstree target)
    cmake_parse_arguments(ARG "" "ROOT" "PROTOS;IMPORTS" ${ARGN})
    if(NOT ARG_ROOT)
        set(ARG_ROOT .)
    endif()
    cmake_path(ABSOLUTE_PATH ARG_ROOT NORMALIZE)
    string(REGEX REPLACE "/$" "" ARG_ROOT "${ARG_ROOT}")
    list(TRANSFORM ARG_IMPORTS REPLACE "^([^/])" "${CMAKE_CURRENT_SOURCE_DIR}/\\1")
    _halvo_check_arguments("halvo_generate_obstree(${target})" "${ARG_ROOT}" "${ARG_PROTOS}"
        "${ARG_UNPARSED_ARGUMENTS}${ARG_KEYWORDS_MISSING_VALUES}")

    set(out ${CMAKE_CURRENT_BINARY_DIR}/${target}.gen)
    set(imports ${ARG_IMPORTS} ${halvo_PROTO_DIR})
    halvo_proto_sources(generated OUT ${out} ROOT ${ARG_ROOT} PROTOS ${ARG_PROTOS}
        IMPORTS ${imports} GRPC)

    list(TRANSFORM imports PREPEND "-I" OUTPUT_VARIABLE includes)
    list(PREPEND includes "-I${ARG_ROOT}")
    list(JOIN includes "|" includes) # a list would become several arguments
    set(stamps)
    foreach(proto IN LISTS ARG_PROTOS)
        set(stamp ${out}/${proto}.checked)
        cmake_path(GET stamp PARENT_PATH folder)
        file(MAKE_DIRECTORY ${folder})
        add_custom_command(
            OUTPUT ${stamp}
            COMMAND ${CMAKE_COMMAND} -DPROTOC=$<TARGET_FILE:protobuf::protoc> "-DINCLUDES=${includes}"
                -DPROTO=${proto} -DSTAMP=${stamp} -P ${_halvo_check_script}
            DEPENDS ${ARG_ROOT}/${proto} ${_halvo_check_script}
            COMMENT "Checking ${proto}"
            VERBATIM)
        list(APPEND stamps ${stamp})
    endforeach()

    add_library(${target} STATIC ${generated} ${stamps})
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON UNITY_BUILD OFF)
    target_include_directories(${target} SYSTEM PUBLIC ${out})
    target_link_libraries(${target} PUBLIC
        halvo::protos halvo::google_api_protos protobuf::libprotobuf gRPC::grpc++)
endfunction()
