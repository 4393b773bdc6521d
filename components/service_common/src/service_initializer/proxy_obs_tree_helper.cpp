#include "hox/service_common/service_initializer/proxy_obs_tree_helper.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/support/channel_arguments.h>

#include <utility>

namespace Hox::Service {

ProxyObsTreeHelper::ProxyObsTreeHelper(
    std::shared_ptr<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder> proxyObsTreeBuilder,
    const std::unique_ptr<grpc::Server>& grpcServer)
    : m_proxyObsTreeBuilder(std::move(proxyObsTreeBuilder)), m_grpcServer(grpcServer) {}

bool ProxyObsTreeHelper::isInProcess(const std::string& address) {
    return address == "inprocess";
}

std::shared_ptr<grpc::Channel> ProxyObsTreeHelper::channelTo(const std::string& address) const {
    return isInProcess(address) ? m_grpcServer->InProcessChannel(grpc::ChannelArguments())
                                : grpc::CreateChannel(address, grpc::InsecureChannelCredentials());
}

}  // namespace Hox::Service
