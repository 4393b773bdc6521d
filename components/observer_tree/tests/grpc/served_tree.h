#pragma once

#include <grpcpp/create_channel.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "grpc/item_tree.h"
#include "hox/observer_tree/builders/async_grpc_server_obs_tree_builder.h"
#include "hox/observer_tree/grpc/grpc_server_observer_tree.h"

namespace Hox::ObserverTree::Test {

/// A tree with the handlers of items, served as in a running program: over TCP, by the handler's
/// own thread. Destroyed in the order of the frame: the server is shut down, then tree and handler
/// are destroyed, then the server object.
template <typename ServiceType>
class ServedTree {
public:
    /// Serves on a free port, or on the port of an earlier server; `fill` is called before.
    explicit ServedTree(const std::string& listeningAddress = "127.0.0.1:0",
                        const std::function<void(ServedTree&)>& fill = nullptr) {
        grpc::ServerBuilder serverBuilder;
        AsyncGRPCServerObsTreeBuilder builder(&serverBuilder, mutex);
        tree = std::make_unique<GrpcServerObserverTree>(builder.asyncGrpcServerHandler());
        registerItemHandlers(*tree, handlers);
        builder.buildServerObsTree<ServiceType>(*tree);
        if (fill) {
            fill(*this);
        }
        int port = 0;
        serverBuilder.AddListeningPort(listeningAddress, grpc::InsecureServerCredentials(), &port);
        server = serverBuilder.BuildAndStart();
        address = "127.0.0.1:" + std::to_string(port);
        handler = builder.asyncGrpcServerHandler();
        handler->startCompletionQueueThread();
    }
    ~ServedTree() { shutdown(std::chrono::milliseconds(0)); }
    ServedTree(const ServedTree&) = delete;
    ServedTree(ServedTree&&) = delete;
    ServedTree& operator=(const ServedTree&) = delete;
    ServedTree& operator=(ServedTree&&) = delete;

    /// Uses a separate connection.
    std::unique_ptr<typename ServiceType::Stub> newStub() {
        return ServiceType::NewStub(newChannel());
    }
    std::shared_ptr<grpc::Channel> newChannel() {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 10);
        return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
    }

    /// Changes the tree as another thread of the capability would.
    void create(const std::string& name, int count = 0) {
        const std::lock_guard<std::mutex> lock(*mutex);
        createItem(*tree, name, count);
    }

    void shutdown(std::chrono::milliseconds grace) {
        server->Shutdown(std::chrono::system_clock::now() + grace);
    }

    std::shared_ptr<std::mutex> mutex = std::make_shared<std::mutex>();
    ItemHandlers handlers;
    std::unique_ptr<grpc::Server> server;
    std::unique_ptr<GrpcServerObserverTree> tree;
    std::shared_ptr<AsyncGrpcServerHandler> handler;  // destroyed before the tree
    std::string address;
};

}  // namespace Hox::ObserverTree::Test
