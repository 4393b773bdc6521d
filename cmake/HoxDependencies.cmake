# All foreign libraries, each from its Debian package (scripts/install-deps).
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
find_package(Protobuf REQUIRED) # before gRPC, whose configuration uses its targets
find_package(gRPC CONFIG REQUIRED)
# The proto files of gRPC's standard services.
find_path(GRPC_PROTO_ROOT grpc/health/v1/health.proto PATHS /usr/share/grpc-proto REQUIRED)
find_package(CLI11 REQUIRED)
find_package(cxxopts REQUIRED)
find_package(LibArchive REQUIRED)
find_package(ZLIB REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(AVAHI REQUIRED IMPORTED_TARGET avahi-client)
pkg_check_modules(JEMALLOC REQUIRED IMPORTED_TARGET jemalloc)
pkg_check_modules(NETSNMP REQUIRED IMPORTED_TARGET netsnmp)
pkg_check_modules(PCRE2 REQUIRED IMPORTED_TARGET libpcre2-8)
pkg_check_modules(RAPIDJSON REQUIRED IMPORTED_TARGET RapidJSON) # its CMake package has no target
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
if(HALVO_BUILD_TESTS)
    find_package(GTest REQUIRED)
    enable_testing()
else()
    find_package(GTest) # for the test kit, which the SDK has if there is GoogleTest
endif()
if(HALVO_BUILD_BENCHMARKS)
    find_package(benchmark REQUIRED)
endif()
