#pragma once

#include <google/protobuf/descriptor.h>
#include <grpcpp/channel.h>

#include <memory>
#include <string>

namespace grpc::internal {
class RpcMethod;  // of gRPC's implementation: its header stays out of this one
}  // namespace grpc::internal

namespace Hox::ObserverTree {

/// A gRPC method registered on a channel. Owns the path, because gRPC only points to it.
class OwnedRpcMethod {
public:
    /// How the method answers.
    enum class Answer { Once, AsStream };

    /// Registers the method on the channel.
    OwnedRpcMethod(const google::protobuf::MethodDescriptor& method, Answer answer,
                   const std::shared_ptr<grpc::ChannelInterface>& channel);
    ~OwnedRpcMethod();
    OwnedRpcMethod(const OwnedRpcMethod&) = delete;
    OwnedRpcMethod(OwnedRpcMethod&&) = delete;
    OwnedRpcMethod& operator=(const OwnedRpcMethod&) = delete;
    OwnedRpcMethod& operator=(OwnedRpcMethod&&) = delete;

    /// "/" + full name of the service + "/" + name of the method.
    static std::string pathOf(const google::protobuf::MethodDescriptor& method);

    /// The method and copies of it are valid as long as this object.
    const grpc::internal::RpcMethod& method() const { return *m_method; }

private:
    std::string m_path;
    std::unique_ptr<grpc::internal::RpcMethod> m_method;
};

}  // namespace Hox::ObserverTree
