# Compile and link flags, carried by one interface target that all our targets link PRIVATE, so no
# flag leaks to users of the libraries.
set(HALVO_SANITIZERS "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")
set(CMAKE_CXX_FLAGS_SANITIZE "-O1 -g1 -fno-omit-frame-pointer")
# As Debian builds its packages; -O3 costs compile time that CI does not have.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

option(HALVO_WERROR "Treat warnings as errors; OFF: a newer compiler may warn" ON)

add_library(hox_build_flags INTERFACE)
target_compile_options(hox_build_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Woverloaded-virtual -Wcast-align -Wold-style-cast -Wformat=2
    -Wimplicit-fallthrough)
if(HALVO_WERROR)
    target_compile_options(hox_build_flags INTERFACE -Werror)
endif()

# File names in texts and debug information are relative to the project, wherever it is built; the
# later map wins if the build folder is below the sources.
add_compile_options(
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
    -ffile-prefix-map=${PROJECT_BINARY_DIR}/=)

if(CMAKE_UNITY_BUILD)
    # Sources that are compiled as one may use a name for different things.
    target_compile_options(hox_build_flags INTERFACE -Wno-shadow)
endif()

# Sanitizers apply to every target, including generated code: a partly instrumented program reports
# false errors.
if(HALVO_SANITIZERS)
    add_compile_options(-fsanitize=${HALVO_SANITIZERS} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${HALVO_SANITIZERS})
    # GCC's flow analysis misjudges instrumented code; the plain builds keep these warnings.
    target_compile_options(hox_build_flags INTERFACE -Wno-maybe-uninitialized)
    if(HALVO_SANITIZERS MATCHES "thread")
        target_compile_options(hox_build_flags INTERFACE -Wno-tsan)
    endif()
endif()
