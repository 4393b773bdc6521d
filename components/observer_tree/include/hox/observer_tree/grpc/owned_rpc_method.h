#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/impl/rpc_method.h>

#include <memory>
#include <string>
#include <utility>

namespace Hox::ObserverTree {

/// A gRPC method registered on a channel, together with its path, to which gRPC only points.
class OwnedRpcMethod {
public:
    /// `path` is "/" + full name of the service + "/" + name of the method.
    OwnedRpcMethod(std::string path, grpc::internal::RpcMethod::RpcType type,
                   const std::shared_ptr<grpc::ChannelInterface>& channel)
        : m_path(std::move(path)), m_method(m_path.c_str(), type, channel) {}
    ~OwnedRpcMethod() = default;
    OwnedRpcMethod(const OwnedRpcMethod&) = delete;
    OwnedRpcMethod(OwnedRpcMethod&&) = delete;
    OwnedRpcMethod& operator=(const OwnedRpcMethod&) = delete;
    OwnedRpcMethod& operator=(OwnedRpcMethod&&) = delete;

    /// Valid as long as this object, also in copies.
    const grpc::internal::RpcMethod& method() const { return m_method; }

private:
    std::string m_path;
    grpc::internal::RpcMethod m_method;
};

}  // namespace Hox::ObserverTree
