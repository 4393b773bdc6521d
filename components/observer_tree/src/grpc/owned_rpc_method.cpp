#include "hox/observer_tree/grpc/owned_rpc_method.h"

namespace Hox::ObserverTree {

OwnedRpcMethod::OwnedRpcMethod(const google::protobuf::MethodDescriptor& method,
                               grpc::internal::RpcMethod::RpcType type,
                               const std::shared_ptr<grpc::ChannelInterface>& channel)
    : m_path(pathOf(method)), m_method(m_path.c_str(), type, channel) {}

std::string OwnedRpcMethod::pathOf(const google::protobuf::MethodDescriptor& method) {
    return "/" + method.service()->full_name() + "/" + method.name();
}

}  // namespace Hox::ObserverTree
