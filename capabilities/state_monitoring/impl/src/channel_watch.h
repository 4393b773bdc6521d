#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/completion_queue.h>

#include <memory>

namespace Hox::Capability::StateMonitoring {

/// Notices that a channel which was ready is lost, also if it is ready again at once. Not
/// thread-safe.
class ChannelWatch {
public:
    /// Watches from now on, what a later query of the channel's state would miss.
    explicit ChannelWatch(std::shared_ptr<grpc::Channel> channel);

    /// Waits until the channel can be left alone, 200 ms at most.
    ~ChannelWatch();
    ChannelWatch(const ChannelWatch&) = delete;
    ChannelWatch(ChannelWatch&&) = delete;
    ChannelWatch& operator=(const ChannelWatch&) = delete;
    ChannelWatch& operator=(ChannelWatch&&) = delete;

    /// Waits for 200 ms at most; true as soon as the channel has not been ready at some time since
    /// the construction.
    bool waitForLoss();

private:
    void watchOn();

    const std::shared_ptr<grpc::Channel> m_channel;
    grpc::CompletionQueue m_events;
    bool m_isLost = false;
};

}  // namespace Hox::Capability::StateMonitoring
