#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "grpc/hand_driven_server.h"
#include "grpc/observe_client.h"

namespace Hox::ObserverTree::Test {

/// A stream whose snapshot, an item of count 1 at /items/a, has been written and read.
struct RunningStream {
    explicit RunningStream(HandDrivenServer& server)
        : client(observeOneItem(server)), tag(server.processNext()) {
        EXPECT_TRUE(client->read());
        EXPECT_EQ(server.processNext(), tag);
    }

    static std::unique_ptr<ObserveClient> observeOneItem(HandDrivenServer& server) {
        createItem(*server.tree, "a", 1);
        return std::make_unique<ObserveClient>(*server.stub);
    }

    std::unique_ptr<ObserveClient> client;
    void* tag;
};

}  // namespace Hox::ObserverTree::Test
