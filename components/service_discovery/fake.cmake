if(NOT TARGET GTest::gmock)
    return()
endif()

# For tests of what uses a client.
hox_add_library(hox_service_discovery_fake
    HEADERS include/hox/service_discovery/fake/fake_service_discovery_client.h
    SOURCES src/fake/fake_service_discovery_client.cpp
    PUBLIC hox_service_discovery
    SDK Testing)
