hox_add_library(hox_service_discovery_avahi
    HEADERS include/hox/service_discovery/avahi/avahi_service_discovery_client.h
    SOURCES
        src/avahi/fair_mutex.cpp
        src/avahi/client_core.cpp
        src/avahi/daemon_connection.cpp
        src/avahi/future/avahi_future_services.cpp
        src/avahi/request/request_state.cpp
        src/avahi/wrappers/daemon_text.cpp
        src/avahi/wrappers/entry_group_wrapper.cpp
        src/avahi/wrappers/service_browser_wrapper.cpp
        src/avahi/wrappers/service_resolver_wrapper.cpp
        src/avahi_publisher.cpp
        src/avahi_resolver.cpp
        src/avahi_resolver_callbacks.cpp
        src/avahi_service_discovery_client.cpp
    PUBLIC hox_service_discovery
    PRIVATE PkgConfig::AVAHI PkgConfig::SYSTEMD
    SDK Service)

# Without a daemon.
hox_add_test(hox_service_discovery_avahi_test
    SOURCES
        tests/avahi_future_test.cpp
        tests/fair_mutex_test.cpp
        tests/avahi_publisher_callbacks_test.cpp
        tests/avahi_resolver_callbacks_test.cpp
        tests/daemon_connection_test.cpp
        tests/daemon_text_test.cpp
        tests/request_state_test.cpp
    LIBS hox_service_discovery_avahi hox_testing PkgConfig::AVAHI
    LABELS threads)

# With a daemon that starts and ends as the tests say.
hox_add_test(hox_service_discovery_client_test
    SOURCES
        tests/avahi_failures_test.cpp
        tests/avahi_loss_test.cpp
        tests/avahi_service_discovery_client_test.cpp
        tests/avahi_two_hosts_test.cpp
        tests/daemon_stand_in.cpp
        tests/discovery_fixture.cpp
        tests/events.cpp
    LIBS hox_service_discovery_avahi hox_testing PkgConfig::SYSTEMD
    LABELS threads
    TIMEOUT 300)

# With a daemon that all tests share.
hox_add_test(hox_service_discovery_network_test
    SOURCES
        tests/avahi_cost_test.cpp
        tests/avahi_publisher_test.cpp
        tests/avahi_resolver_test.cpp
        tests/discovery_fixture.cpp
        tests/events.cpp
    LIBS hox_service_discovery_avahi hox_testing PkgConfig::AVAHI
    LABELS threads
    TIMEOUT 300)

# Their private names are those of other sources, with which they cannot be compiled as one.
set_source_files_properties(tests/avahi_service_discovery_client_test.cpp
    PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
