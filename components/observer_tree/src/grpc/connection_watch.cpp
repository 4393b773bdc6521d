#include "grpc/connection_watch.h"

#include <grpc/support/time.h>

#include <algorithm>
#include <utility>

namespace Hox::ObserverTree {

namespace {

using Clock = std::chrono::steady_clock;

/// From the deadline of one probe to that of the other.
constexpr auto turn = ConnectionWatch::span / 2;

/// For how long both probes watch at least before one is allowed to expire.
constexpr std::chrono::milliseconds handover{20};

}  // namespace

ConnectionWatch::ConnectionWatch(std::shared_ptr<grpc::Channel> channel,
                                 grpc::CompletionQueue& queue)
    : m_channel(std::move(channel)), m_queue(queue) {}

void ConnectionWatch::arm(bool connect) {
    arm(m_probes[0], m_probes[1], connect);
    arm(m_probes[1], m_probes[0], connect);
}

void ConnectionWatch::arm(Probe& probe, const Probe& other, bool connect) {
    if (probe.isPending) {
        return;
    }
    const auto state = m_channel->GetState(connect);
    const auto now = Clock::now();
    auto deadline = now + turn;
    if (isWatching(other)) {
        const bool isFirst = other.deadline + turn > now + span;
        deadline = isFirst ? other.deadline - turn : other.deadline + turn;
    }
    probe = {true, state == GRPC_CHANNEL_READY, now, deadline};
    // On the clock that cannot be set.
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    m_channel->NotifyOnStateChange(state,
                                   gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC),
                                                gpr_time_from_millis(wait.count(), GPR_TIMESPAN)),
                                   &m_queue, &probe);
}

ConnectionWatch::Readiness ConnectionWatch::readiness() const {
    if (std::any_of(m_probes.begin(), m_probes.end(), isWatching)) {
        return Readiness::Watched;
    }
    // With events that nobody has had the time to take the connection is there, or was.
    const bool isLate = std::any_of(m_probes.begin(), m_probes.end(), [](const Probe& probe) {
        return probe.isPending && probe.watchesConnection;
    });
    const bool isShutDown = m_channel->GetState(false) == GRPC_CHANNEL_SHUTDOWN;
    return isLate || isShutDown ? Readiness::Unwatched : Readiness::NotYet;
}

bool ConnectionWatch::isWatching(const Probe& probe) {
    return probe.isPending && probe.watchesConnection && Clock::now() < probe.deadline;
}

/// A change about the time of the deadline is reported as the deadline only.
bool ConnectionWatch::isRelieved(const Probe& probe, const Probe& other) {
    return isWatching(other) && other.begin + handover < probe.deadline;
}

bool ConnectionWatch::take(const void* tag, bool isChanged) {
    const bool isFirst = tag == &m_probes.front();
    if (!isFirst && tag != &m_probes.back()) {
        return false;
    }
    auto& probe = isFirst ? m_probes.front() : m_probes.back();
    auto& other = isFirst ? m_probes.back() : m_probes.front();
    probe.isPending = false;
    ++m_events;
    if (probe.watchesConnection && (isChanged || !isRelieved(probe, other))) {
        ++m_losses;
        other.watchesConnection = false;  // otherwise the same loss would be counted twice
    }
    return true;
}

bool ConnectionWatch::isIdle() const {
    return m_channel->GetState(false) == GRPC_CHANNEL_IDLE;
}

bool ConnectionWatch::isPending() const {
    return std::any_of(m_probes.begin(), m_probes.end(),
                       [](const Probe& probe) { return probe.isPending; });
}

}  // namespace Hox::ObserverTree
