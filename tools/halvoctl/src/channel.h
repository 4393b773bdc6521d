#pragma once

#include <grpcpp/channel.h>

#include <functional>
#include <memory>
#include <string>

namespace Hox::Ctl {

/// Makes the channel to an endpoint. It connects when it is first used.
using ChannelFactory = std::function<std::shared_ptr<grpc::Channel>(const std::string& endpoint)>;

/// A channel with its own connection, without encryption, proxy and limits on messages. Its
/// connection is watched by pings, and is tried again every 0.2 s to 5 s after a loss.
std::shared_ptr<grpc::Channel> makeChannel(const std::string& endpoint);

}  // namespace Hox::Ctl
