#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/completion_queue.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>

namespace Hox::ObserverTree {

/// Counts the losses of a channel's connection, also if the channel is connected again before
/// anybody looks. Its events arrive on the queue of its owner, whose mutex guards all members.
class ConnectionWatch {
public:
    /// What a call that starts now can expect. Unwatched: the loss of its connection may be missed.
    /// NotYet: there is no connection; an event comes as soon as this changes.
    enum class Readiness { NotYet, Unwatched, Watched };

    /// The longest time for which an event of this watch is pending: gRPC ends a watch at a change
    /// or at its deadline, and not otherwise.
    static constexpr std::chrono::milliseconds span{400};

    /// Watches nothing yet. The queue outlives all events.
    ConnectionWatch(std::shared_ptr<grpc::Channel> channel, grpc::CompletionQueue& queue);

    /// Makes events pending that are not. With connect the channel leaves idle. The queue has not
    /// been shut down.
    void arm(bool connect);

    /// Asks the channel, unless its connection is watched.
    Readiness readiness() const;

    /// Takes an event of the queue; false if it belongs to something else.
    bool take(const void* tag, bool isChanged);

    /// Grows with each loss since the first call of arm(), and whenever the connection was not
    /// watched for a time.
    std::uint64_t losses() const { return m_losses; }

    /// Grows with each event. A loss is counted within the next four events, as they come in order
    /// and at most two of them at a time.
    std::uint64_t events() const { return m_events; }

    /// Whether the channel has no connection now, and makes none.
    bool isIdle() const;

    /// Whether an event is still to come: the watch must not be destroyed.
    bool isPending() const;

private:
    /// One pending event. Two of them take turns, so that one watches while the other is renewed.
    struct Probe {
        bool isPending = false;
        bool watchesConnection = false;
        std::chrono::steady_clock::time_point begin{};
        std::chrono::steady_clock::time_point deadline{};
    };

    static bool isWatching(const Probe& probe);
    static bool isRelieved(const Probe& probe, const Probe& other);
    void arm(Probe& probe, const Probe& other, bool connect);

    const std::shared_ptr<grpc::Channel> m_channel;
    grpc::CompletionQueue& m_queue;
    std::array<Probe, 2> m_probes;
    std::uint64_t m_losses = 0;
    std::uint64_t m_events = 0;
};

}  // namespace Hox::ObserverTree
