#include "channel.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>
#include <grpcpp/support/channel_arguments.h>

namespace Hox::Ctl {

namespace {

constexpr int keepaliveMilliseconds = 10000;
constexpr int firstRetryMilliseconds = 200;
constexpr int lastRetryMilliseconds = 5000;

}  // namespace

std::shared_ptr<grpc::Channel> makeChannel(const std::string& endpoint) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    arguments.SetMaxSendMessageSize(-1);
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetInt(GRPC_ARG_SERVICE_CONFIG_DISABLE_RESOLUTION, 1);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, keepaliveMilliseconds);
    arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, keepaliveMilliseconds);
    arguments.SetInt(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, firstRetryMilliseconds);
    arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, lastRetryMilliseconds);
    return grpc::CreateCustomChannel(endpoint, grpc::InsecureChannelCredentials(), arguments);
}

}  // namespace Hox::Ctl
