#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>

#include "hox/observer_tree/grpc/irequest_wrapper_service.h"
#include "hox/observer_tree/observer_tree.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// A method bound to a tree, with everything that a call of it needs. Immutable, so any number of
/// calls can share it.
struct AsyncMethodDesc {
    /// Reads the binding from the descriptor, whose option need not be valid. The tree is not
    /// owned.
    AsyncMethodDesc(const google::protobuf::MethodDescriptor& method,
                    std::shared_ptr<IRequestWrapperService> wrapper, ObserverTree* servedTree);

    const int index;  ///< The index of the method in its service.
    /// The key and the operation it is bound to, as declared.
    const ObsTreeOptions options;
    /// Prototypes to create requests and answers; never sent themselves.
    const std::unique_ptr<const google::protobuf::Message> requestPrototype;
    const std::unique_ptr<const google::protobuf::Message> responsePrototype;
    /// Requests calls of the method from the service.
    const std::shared_ptr<IRequestWrapperService> reqWrapperService;
    const bool isServerStreaming;  ///< If false, the method has a single answer.
    ObserverTree* const tree;      ///< The tree that the method is bound to. Not owned.
    const std::string fullName;    ///< As in the descriptor, with dots, for logs.
};

}  // namespace Hox::ObserverTree
