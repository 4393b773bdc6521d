#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>

#include "hox/observer_tree/grpc/irequest_wrapper_service.h"
#include "hox/observer_tree/observer_tree.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// A method bound to a tree: all that a call of it needs to know. Immutable, so that any number of
/// calls share it.
struct AsyncMethodDesc {
    /// Reads the binding from the descriptor, whose option need not be valid. The tree is not
    /// owned.
    AsyncMethodDesc(const google::protobuf::MethodDescriptor& method,
                    std::shared_ptr<IRequestWrapperService> wrapper, ObserverTree* servedTree);

    const int index;  ///< The method's place in its service.
    const ObsTreeOptions options;
    const std::unique_ptr<const google::protobuf::Message> requestPrototype;
    const std::unique_ptr<const google::protobuf::Message> responsePrototype;
    const std::shared_ptr<IRequestWrapperService> reqWrapperService;
    const bool isServerStreaming;
    ObserverTree* const tree;
    const std::string fullName;
};

}  // namespace Hox::ObserverTree
