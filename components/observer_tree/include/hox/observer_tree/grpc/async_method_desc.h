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
    /// The key and the operation it is bound to, as declared.
    const ObsTreeOptions options;
    /// For making requests and answers of its types; never sent themselves.
    const std::unique_ptr<const google::protobuf::Message> requestPrototype;
    const std::unique_ptr<const google::protobuf::Message> responsePrototype;
    /// Asks the service for calls of the method.
    const std::shared_ptr<IRequestWrapperService> reqWrapperService;
    const bool isServerStreaming;  ///< One answer otherwise.
    ObserverTree* const tree;      ///< What it is bound to. Not owned.
    const std::string fullName;    ///< As in the descriptor, with dots, for logs.
};

}  // namespace Hox::ObserverTree
