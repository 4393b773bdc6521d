#include "hox/service_common/service_initializer/proxy_obs_tree_helper.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/support/channel_arguments.h>

#include <utility>

namespace Hox::Service {

namespace {

/// From one attempt to connect to the next one, in milliseconds: who waits for a service that
/// starts has it within a second.
constexpr int attemptInterval = 500;

/// The longest time of one attempt, in milliseconds: a distant or busy peer takes more than a
/// second to say that it is there, and one whose machine is down is soon asked again.
constexpr int attemptLimit = 5000;

/// As servers of this house do it: a peer that is gone without a word is known within a minute.
constexpr int pingInterval = 30'000;
constexpr int pingTimeout = 20'000;

/// The first element of a stream has everything that is observed: a full archive of long reports is
/// larger than gRPC's own limit of 4 MiB. A peer may not have all of this machine's memory, either.
constexpr int largestElement = 64 * 1024 * 1024;

std::shared_ptr<grpc::Channel> networkChannel(const std::string& address) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, attemptInterval);
    arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, attemptLimit);
    arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, attemptInterval);
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, pingInterval);
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, pingTimeout);
    arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
    arguments.SetMaxReceiveMessageSize(largestElement);
    return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

}  // namespace

ProxyObsTreeHelper::ProxyObsTreeHelper(
    std::shared_ptr<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder> proxyObsTreeBuilder,
    const std::unique_ptr<grpc::Server>& grpcServer)
    : m_proxyObsTreeBuilder(std::move(proxyObsTreeBuilder)), m_grpcServer(grpcServer) {}

bool ProxyObsTreeHelper::isInProcess(const std::string& address) {
    return address == "inprocess";
}

std::shared_ptr<grpc::Channel> ProxyObsTreeHelper::channelTo(const std::string& address) const {
    return isInProcess(address) ? m_grpcServer->InProcessChannel(grpc::ChannelArguments())
                                : networkChannel(address);
}

}  // namespace Hox::Service
