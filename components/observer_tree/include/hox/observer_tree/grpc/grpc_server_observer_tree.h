#pragma once

#include <memory>
#include <utility>

#include "hox/observer_tree/grpc/async_grpc_server_handler.h"
#include "hox/observer_tree/observer_tree.h"

namespace Hox::ObserverTree {

/// A tree served over gRPC, which keeps its handler alive.
///
/// If the tree holds the last reference, the handler's thread ends before the tree is destroyed.
class GrpcServerObserverTree : public ObserverTree {
public:
    /// Shares ownership of the handler that serves this tree.
    explicit GrpcServerObserverTree(std::shared_ptr<AsyncGrpcServerHandler> asyncGrpcServerHandler)
        : m_asyncGrpcServerHandler(std::move(asyncGrpcServerHandler)) {}

private:
    std::shared_ptr<AsyncGrpcServerHandler> m_asyncGrpcServerHandler;
};

}  // namespace Hox::ObserverTree
