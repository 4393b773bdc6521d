#pragma once

#include <google/protobuf/descriptor.h>
#include <grpcpp/channel.h>
#include <grpcpp/impl/rpc_method.h>

#include <memory>
#include <string>

namespace Hox::ObserverTree {

/// A gRPC method registered on a channel. Owns the path, because gRPC only points to it.
class OwnedRpcMethod {
public:
    /// Registers the method, with this type, on the channel.
    OwnedRpcMethod(const google::protobuf::MethodDescriptor& method,
                   grpc::internal::RpcMethod::RpcType type,
                   const std::shared_ptr<grpc::ChannelInterface>& channel);
    ~OwnedRpcMethod() = default;
    OwnedRpcMethod(const OwnedRpcMethod&) = delete;
    OwnedRpcMethod(OwnedRpcMethod&&) = delete;
    OwnedRpcMethod& operator=(const OwnedRpcMethod&) = delete;
    OwnedRpcMethod& operator=(OwnedRpcMethod&&) = delete;

    /// "/" + full name of the service + "/" + name of the method.
    static std::string pathOf(const google::protobuf::MethodDescriptor& method);

    /// The method and copies of it are valid as long as this object.
    const grpc::internal::RpcMethod& method() const { return m_method; }

private:
    std::string m_path;
    grpc::internal::RpcMethod m_method;
};

}  // namespace Hox::ObserverTree
