# What `cmake --install` puts below the prefix, by components: "system" (the service), "tools" (the
# programs of an operator), "sdk" (libraries, headers, protos and the CMake package for the authors of
# other services), "python" (the module halvo) and "doc".
#
# The SDK has parts, each with a CMake file of its targets. "Tree" needs no gRPC; "GoogleApi" can be
# replaced by the author's own library; "Service" is the rest of what runs in a service; "Testing" is
# there if the tests are built.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(HOX_SDK_PARTS Tree GoogleApi Service Testing)
set(HOX_SDK_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/halvo) # the only include root of the SDK
set(HOX_SDK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/halvo)
set(HOX_SDK_DATA_DIR ${CMAKE_INSTALL_DATADIR}/halvo)
set(HOX_SDK_PYTHON_DIR lib/python3/dist-packages) # as on Debian
set(HOX_SDK_PROTO_DIR ${HOX_SDK_DATA_DIR}/proto)

# hox_install_library(<target> <part>)
#
# Makes the library halvo::<name>, where the name is that of the target without "hox_", with its header
# set.
function(hox_install_library target part)
    if(NOT part IN_LIST HOX_SDK_PARTS)
        message(FATAL_ERROR "${target}: the SDK has no part \"${part}\"")
    endif()
    string(REGEX REPLACE "^hox_" "" name ${target})
    set_target_properties(${target} PROPERTIES
        EXPORT_NAME ${name}
        POSITION_INDEPENDENT_CODE ON) # for authors who link it into a shared library
    set(headers)
    get_target_property(header_sets ${target} INTERFACE_HEADER_SETS)
    if(header_sets)
        set(headers FILE_SET HEADERS DESTINATION ${HOX_SDK_INCLUDE_DIR} COMPONENT sdk)
    endif()
    install(TARGETS ${target} EXPORT halvo${part}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sdk
        ${headers})
    set_property(GLOBAL APPEND PROPERTY HOX_SDK_${part} ${target})
endfunction()

# hox_install_protos(<root> <folder of the generated code> GRPC <bool> PROTOS <file>...)
#
# Installs the proto files under the names by which they are imported, with their generated headers.
function(hox_install_protos root generated)
    cmake_parse_arguments(ARG "" "GRPC" "PROTOS" ${ARGN})
    foreach(proto IN LISTS ARG_PROTOS)
        cmake_path(GET proto PARENT_PATH folder)
        cmake_path(REMOVE_EXTENSION proto LAST_ONLY OUTPUT_VARIABLE stem)
        set(headers ${generated}/${stem}.pb.h)
        if(ARG_GRPC)
            list(APPEND headers ${generated}/${stem}.grpc.pb.h)
        endif()
        install(FILES ${root}/${proto} DESTINATION ${HOX_SDK_PROTO_DIR}/${folder} COMPONENT sdk)
        set_property(GLOBAL APPEND PROPERTY HOX_SDK_PROTO_PATHS ${root}/${proto})
        install(FILES ${headers} DESTINATION ${HOX_SDK_INCLUDE_DIR}/${folder} COMPONENT sdk)
    endforeach()
    set_property(GLOBAL APPEND PROPERTY HOX_SDK_PROTO_ROOTS ${root})
    set_property(GLOBAL APPEND PROPERTY HOX_SDK_PROTOS ${ARG_PROTOS})
endfunction()

# hox_install_program(<target> <component> <folder>)
function(hox_install_program target component folder)
    install(TARGETS ${target} RUNTIME DESTINATION ${folder} COMPONENT ${component})
endfunction()

# hox_install_manual(<component> <page>...)
function(hox_install_manual component)
    foreach(page IN LISTS ARGN)
        cmake_path(GET page EXTENSION LAST_ONLY section)
        string(REPLACE "." "man" folder "${section}")
        install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/${folder} COMPONENT ${component})
    endforeach()
endfunction()

# All proto files of the SDK with their imports, for clients that generate no code.
function(_hox_install_protoset)
    get_property(roots GLOBAL PROPERTY HOX_SDK_PROTO_ROOTS)
    get_property(protos GLOBAL PROPERTY HOX_SDK_PROTOS)
    get_property(paths GLOBAL PROPERTY HOX_SDK_PROTO_PATHS)
    list(TRANSFORM roots PREPEND "-I" OUTPUT_VARIABLE includes)
    set(protoset ${PROJECT_BINARY_DIR}/halvo.protoset)
    add_custom_command(
        OUTPUT ${protoset}
        COMMAND protobuf::protoc ${includes} --include_imports --descriptor_set_out=${protoset}
            ${protos}
        DEPENDS ${paths} protobuf::protoc
        COMMENT "Generating halvo.protoset"
        VERBATIM)
    add_custom_target(halvo_protoset ALL DEPENDS ${protoset})
    install(FILES ${protoset} DESTINATION ${HOX_SDK_DATA_DIR} COMPONENT sdk)
    install(FILES ${PROJECT_SOURCE_DIR}/python/halvo/__init__.py ${protoset}
        DESTINATION ${HOX_SDK_PYTHON_DIR}/halvo COMPONENT python)
endfunction()

# The flags to compile and link with the SDK, for builds without CMake. The archives refer to each
# other, so they form a group.
function(_hox_install_pkg_config)
    set(HOX_SDK_LIBS)
    foreach(part Tree GoogleApi Service)
        get_property(targets GLOBAL PROPERTY HOX_SDK_${part})
        foreach(target IN LISTS targets)
            string(APPEND HOX_SDK_LIBS " -l${target}")
        endforeach()
    endforeach()
    set(folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    file(RELATIVE_PATH HOX_SDK_PREFIX /${folder} /)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/sdk/halvo.pc.in ${PROJECT_BINARY_DIR}/sdk/halvo.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/sdk/halvo.pc DESTINATION ${folder} COMPONENT sdk)
endfunction()

# hox_install_packages()
#
# Installs the CMake package, halvo.pc and the descriptions of the protos. Called once, after all targets exist.
function(hox_install_packages)
    _hox_install_protoset()
    _hox_install_pkg_config()
    add_custom_target(halvo_sdk DEPENDS halvo_protoset) # all that the component "sdk" needs
    foreach(part IN LISTS HOX_SDK_PARTS)
        get_property(targets GLOBAL PROPERTY HOX_SDK_${part})
        if(targets)
            add_dependencies(halvo_sdk ${targets})
            install(EXPORT halvo${part} NAMESPACE halvo:: DESTINATION ${HOX_SDK_CMAKE_DIR}
                COMPONENT sdk)
        endif()
    endforeach()
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/sdk/halvoConfig.cmake.in
        ${PROJECT_BINARY_DIR}/sdk/halvoConfig.cmake
        INSTALL_DESTINATION ${HOX_SDK_CMAKE_DIR}
        PATH_VARS HOX_SDK_PROTO_DIR
        NO_CHECK_REQUIRED_COMPONENTS_MACRO)
    # Static libraries: the source compatibility of 0.x ends with the minor version.
    write_basic_package_version_file(${PROJECT_BINARY_DIR}/sdk/halvoConfigVersion.cmake
        COMPATIBILITY SameMinorVersion)
    install(FILES
            ${PROJECT_BINARY_DIR}/sdk/halvoConfig.cmake
            ${PROJECT_BINARY_DIR}/sdk/halvoConfigVersion.cmake
            ${PROJECT_SOURCE_DIR}/cmake/sdk/HalvoCheckObstree.cmake
            ${PROJECT_SOURCE_DIR}/cmake/sdk/HalvoGenerateObstree.cmake
            ${PROJECT_SOURCE_DIR}/cmake/sdk/HalvoProtoSources.cmake
        DESTINATION ${HOX_SDK_CMAKE_DIR} COMPONENT sdk)
    install(FILES docs/authors.md docs/operations.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/halvo COMPONENT doc)
    install(DIRECTORY examples/lamp
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/halvo/examples COMPONENT doc)
    install(FILES examples/observer.py
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/halvo/examples COMPONENT doc)
endfunction()
