hox_add_library(hox_observer_tree_persistence
    HEADERS
        include/hox/observer_tree/persistence/inode_data_hndlr.h
        include/hox/observer_tree/persistence/node_data_file_hndlr.h
        include/hox/observer_tree/persistence/persistence_hndlr.h
        include/hox/observer_tree/persistence/store_node_data_return.h
        include/hox/observer_tree/persistence/value_text.h
    SOURCES
        src/persistence/node_data_file_hndlr.cpp
        src/persistence/persistence_hndlr.cpp
        src/persistence/data_tree_update.cpp
        src/persistence/unstored_keys.cpp
        src/persistence/value_text.cpp
    PUBLIC hox_observer_tree
    PRIVATE hox_linux_cpp_utils
    SDK Service)

if(HALVO_BUILD_TESTS)
    hox_add_test(hox_observer_tree_persistence_test
        SOURCES
            tests/log_environment.cpp
            tests/persistence/node_data_file_hndlr_test.cpp
            tests/persistence/persistence_central_test.cpp
            tests/persistence/persistence_hndlr_test.cpp
            tests/persistence/persistence_kit.cpp
            tests/persistence/persistence_requests_test.cpp
        LIBS hox_observer_tree_persistence hox_testing
        LABELS threads)
    target_include_directories(hox_observer_tree_persistence_test PRIVATE tests)

    # Not for ThreadSanitizer: it uses maps of the library's own messages, which have another layout there.
    hox_add_test(hox_observer_tree_value_text_test
        SOURCES
            tests/log_environment.cpp
            tests/persistence/value_text_test.cpp
        LIBS hox_observer_tree_persistence hox_testing)
    target_include_directories(hox_observer_tree_value_text_test PRIVATE tests)
endif()
