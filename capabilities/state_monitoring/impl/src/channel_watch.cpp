#include "channel_watch.h"

#include <chrono>
#include <utility>

namespace Hox::Capability::StateMonitoring {

namespace {

/// gRPC ends a watch at its deadline or at a change, and not otherwise.
constexpr std::chrono::milliseconds step{200};

}  // namespace

ChannelWatch::ChannelWatch(std::shared_ptr<grpc::Channel> channel) : m_channel(std::move(channel)) {
    watchOn();
}

ChannelWatch::~ChannelWatch() {
    m_events.Shutdown();
    void* tag = nullptr;
    bool isChanged = false;
    while (m_events.Next(&tag, &isChanged)) {
    }
}

bool ChannelWatch::waitForLoss() {
    void* tag = nullptr;
    bool isChanged = false;
    if (!m_isLost && m_events.Next(&tag, &isChanged)) {
        m_isLost = isChanged;
        if (!m_isLost) {
            watchOn();
        }
    }
    return m_isLost;
}

void ChannelWatch::watchOn() {
    m_channel->NotifyOnStateChange(GRPC_CHANNEL_READY, std::chrono::system_clock::now() + step,
                                   &m_events, this);
}

}  // namespace Hox::Capability::StateMonitoring
