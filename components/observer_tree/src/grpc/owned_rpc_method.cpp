#include "hox/observer_tree/grpc/owned_rpc_method.h"

#include <grpcpp/impl/rpc_method.h>

namespace Hox::ObserverTree {

using grpc::internal::RpcMethod;

OwnedRpcMethod::OwnedRpcMethod(const google::protobuf::MethodDescriptor& method, Answer answer,
                               const std::shared_ptr<grpc::ChannelInterface>& channel)
    : m_path(pathOf(method)),
      m_method(std::make_unique<RpcMethod>(
          m_path.c_str(),
          answer == Answer::Once ? RpcMethod::NORMAL_RPC : RpcMethod::SERVER_STREAMING, channel)) {}

OwnedRpcMethod::~OwnedRpcMethod() = default;

std::string OwnedRpcMethod::pathOf(const google::protobuf::MethodDescriptor& method) {
    return "/" + method.service()->full_name() + "/" + method.name();
}

}  // namespace Hox::ObserverTree
