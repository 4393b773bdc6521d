hox_add_library(hox_observer_tree_grpc
    HEADERS
        include/hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h
        include/hox/observer_tree/builders/async_grpc_server_obs_tree_builder.h
        include/hox/observer_tree/builders/check_bindings.h
        include/hox/observer_tree/builders/obs_tree_build_error.h
        include/hox/observer_tree/builders/proto_obs_tree_builder.h
        include/hox/observer_tree/builders/service_traits.h
        include/hox/observer_tree/grpc/async_grpc_client_handler.h
        include/hox/observer_tree/grpc/async_grpc_server_handler.h
        include/hox/observer_tree/grpc/async_method_desc.h
        include/hox/observer_tree/grpc/grpc_server_observer_tree.h
        include/hox/observer_tree/grpc/grpc_wrapper_service.h
        include/hox/observer_tree/grpc/in_process_gate.h
        include/hox/observer_tree/grpc/irequest_wrapper_service.h
        include/hox/observer_tree/grpc/owned_rpc_method.h
        include/hox/observer_tree/grpc/standby_poller.h
        include/hox/observer_tree/grpc/steady_observer.h
        include/hox/observer_tree/grpc/unary_caller.h
        include/hox/observer_tree/proxy_observer_tree.h
    SOURCES
        src/builders/async_grpc_proxy_obs_tree_builder.cpp
        src/builders/async_grpc_server_obs_tree_builder.cpp
        src/builders/check_bindings.cpp
        src/builders/proto_obs_tree_builder.cpp
        src/builders/service_traits.cpp
        src/grpc/async_grpc_client_handler.cpp
        src/grpc/async_grpc_server_events.cpp
        src/grpc/async_grpc_server_handler.cpp
        src/grpc/async_method_desc.cpp
        src/grpc/client_text.cpp
        src/grpc/connection_watch.cpp
        src/grpc/in_process_gate.cpp
        src/grpc/non_polling_queue.cpp
        src/grpc/observe_stream.cpp
        src/grpc/owned_rpc_method.cpp
        src/grpc/standby_poller.cpp
        src/grpc/steady_observation.cpp
        src/grpc/steady_observer.cpp
        src/grpc/unary_caller.cpp
        src/grpc/unmatchable_pattern.cpp
        src/grpc/wire_message_memo.cpp
    PUBLIC hox_observer_tree gRPC::grpc++
    SDK Service)
if(HALVO_NON_POLLING_QUEUES)
    target_compile_definitions(hox_observer_tree_grpc PRIVATE HALVO_NON_POLLING_QUEUES)
endif()

if(HALVO_BUILD_TESTS)
    hox_add_proto_library(hox_observer_tree_test_proto GRPC
        ROOT tests/grpc
        PROTOS test_service.proto
        DEPENDS hox_protos)

    add_library(hox_observer_tree_grpc_test_support STATIC
        tests/grpc/counting_service.cpp
        tests/grpc/hand_driven_server.cpp
        tests/grpc/item_tree.cpp
        tests/grpc/observe_client.cpp
        tests/grpc/system_calls.cpp
        tests/grpc/told.cpp
        tests/grpc/unary_call.cpp)
    target_include_directories(hox_observer_tree_grpc_test_support PUBLIC tests)
    target_link_libraries(hox_observer_tree_grpc_test_support
        PUBLIC hox_observer_tree_grpc hox_observer_tree_test_proto hox_testing GTest::gtest
        PRIVATE hox_build_flags)

    hox_add_test(hox_observer_tree_builders_test
        SOURCES
            tests/builders/async_grpc_proxy_obs_tree_builder_test.cpp
            tests/builders/async_grpc_server_obs_tree_builder_test.cpp
            tests/builders/check_bindings_test.cpp
            tests/builders/proto_obs_tree_builder_test.cpp
            tests/builders/service_traits_test.cpp
            tests/grpc/captured_logging.cpp
        LIBS hox_observer_tree_grpc_test_support
        LABELS threads)

    hox_add_test(hox_observer_tree_grpc_test
        SOURCES
            tests/grpc/async_grpc_client_handler_test.cpp
            tests/grpc/async_grpc_server_events_test.cpp
            tests/grpc/async_grpc_server_handler_test.cpp
            tests/grpc/async_grpc_server_limits_test.cpp
            tests/grpc/captured_logging.cpp
            tests/grpc/client_text_test.cpp
            tests/grpc/in_process_gate_test.cpp
            tests/grpc/non_polling_queue_test.cpp
            tests/grpc/proxy_observer_tree_handles_test.cpp
            tests/grpc/proxy_observer_tree_peer_test.cpp
            tests/grpc/proxy_observer_tree_test.cpp
            tests/grpc/proxy_observer_tree_threads_test.cpp
            tests/grpc/standby_poller_test.cpp
            tests/grpc/steady_observer_test.cpp
            tests/grpc/unary_caller_test.cpp
            tests/grpc/unmatchable_pattern_test.cpp
            tests/grpc/wire_message_memo_test.cpp
        LIBS hox_observer_tree_grpc_test_support
        LABELS threads
        TIMEOUT 600)

    add_executable(hox_observer_tree_test_peer tests/grpc/peer/main.cpp)
    target_link_libraries(hox_observer_tree_test_peer
        PRIVATE hox_build_flags hox_observer_tree_test_proto)

    hox_add_test(hox_observer_tree_loss_test
        SOURCES
            tests/grpc/captured_logging.cpp
            tests/grpc/connection_loss_test.cpp
        LIBS hox_observer_tree_grpc_test_support
        LABELS threads
        TIMEOUT 300)
    add_dependencies(hox_observer_tree_loss_test hox_observer_tree_test_peer)
    target_compile_definitions(hox_observer_tree_loss_test
        PRIVATE HOX_TEST_PEER="$<TARGET_FILE:hox_observer_tree_test_peer>")

    if(HALVO_NON_POLLING_QUEUES)
        target_compile_definitions(hox_observer_tree_grpc_test PRIVATE HALVO_NON_POLLING_QUEUES)
    endif()
endif()

# Their private names are those of other sources, with which they cannot be compiled as one.
set_source_files_properties(
    tests/grpc/async_grpc_server_handler_test.cpp tests/grpc/async_grpc_server_limits_test.cpp
    PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
