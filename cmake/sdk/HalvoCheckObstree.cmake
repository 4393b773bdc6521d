# cmake -DPROTOC=<program> -DINCLUDES=<-Ifolder|...> -DPROTO=<file> -DSTAMP=<file> -P HalvoCheckObstree.cmake
#
# Ends with an error that names the method if an obs_tree_option of the proto file has no address or no
# type, or if two methods of a service have the same ones. Otherwise touches the stamp.
cmake_minimum_required(VERSION 3.25)
string(REPLACE "|" ";" INCLUDES "${INCLUDES}")
execute_process(
    COMMAND ${PROTOC} ${INCLUDES} --descriptor_set_out=${STAMP}.set ${PROTO}
    COMMAND_ERROR_IS_FATAL ANY)
execute_process(
    COMMAND ${PROTOC} ${INCLUDES} --decode=google.protobuf.FileDescriptorSet
        google/protobuf/descriptor.proto obstree.proto
    INPUT_FILE ${STAMP}.set
    OUTPUT_VARIABLE dump
    COMMAND_ERROR_IS_FATAL ANY)

# Reports what is wrong with the option of the method that ends here.
macro(_check_method)
    if(has_option)
        set(place "${PROTO}: method ${service}.${method}")
        if(key STREQUAL "")
            message(FATAL_ERROR "${place} has an obs_tree_option without a key")
        endif()
        if(type STREQUAL "")
            message(FATAL_ERROR "${place} has the key \"${key}\" and no type")
        endif()
        if("${type} ${key}" IN_LIST bound)
            message(FATAL_ERROR "${place} is another one with the key \"${key}\" and the type ${type}")
        endif()
        list(APPEND bound "${type} ${key}")
    endif()
    set(has_option FALSE)
    set(key "")
    set(type "")
endmacro()

# protoc indents by two blanks for each level: a service has 2, its methods have 4. Lists of CMake
# must not contain brackets.
string(REPLACE "[" "<" dump "${dump}")
string(REPLACE "]" ">" dump "${dump}")
string(REPLACE ";" "," dump "${dump}")
string(REPLACE "\n" ";" lines "${dump}")
set(in_service FALSE)
set(has_option FALSE)
foreach(line IN LISTS lines)
    if(line MATCHES "^  [a-z]")
        _check_method()
        set(bound)
        string(COMPARE EQUAL "${line}" "  service {" in_service)
    elseif(NOT in_service)
        continue()
    elseif(line MATCHES "^    name: \"(.*)\"$")
        set(service ${CMAKE_MATCH_1})
    elseif(line STREQUAL "    method {")
        _check_method()
    elseif(line MATCHES "^      name: \"(.*)\"$")
        set(method ${CMAKE_MATCH_1})
    elseif(line STREQUAL "        <Hox.ObserverTree.obs_tree_option> {")
        set(has_option TRUE)
    elseif(has_option AND line MATCHES "^          key: \"(.*)\"$")
        set(key "${CMAKE_MATCH_1}")
    elseif(has_option AND line MATCHES "^          type: ([A-Z]*)$" AND NOT CMAKE_MATCH_1 STREQUAL "RESERVED")
        set(type ${CMAKE_MATCH_1})
    endif()
endforeach()
_check_method()
file(TOUCH ${STAMP})
