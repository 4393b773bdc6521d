#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

/// Ends the journey of notifications that come back to where they have been, because monitors
/// observe each other in a circle. Asked for the notifications of peers that observe others.
///
/// Counts equal notifications, time stamp included, by the source from which they arrive. One that
/// another source has sent, too, is accepted from a source as long as it has sent fewer of them
/// than the other one: in a circle each monitor accepts one more copy, then no further one. One
/// that only one source sends is accepted, but
/// - with a time stamp, not more often than before the last restart of the source;
/// - without one, repetitions up to a rate that only a circle reaches. They can be news: of sources
///   that repeat each other, that which was the first may go on.
/// Not thread-safe.
class CircleGuard {
public:
    /// Where a notification comes from: a number for each peer, or this monitor itself.
    using Source = std::uint32_t;
    static constexpr Source own = 0;

    using Time = std::chrono::steady_clock::time_point;

    /// Remembers the last `memory` notifications.
    explicit CircleGuard(std::size_t memory,
                         std::function<Time()> clock = std::chrono::steady_clock::now);

    /// Counts a notification, which is stored in any case.
    void count(Source source, const Api::StateNotification& notification);

    /// Whether the notification is to be stored; counts it if so.
    bool accepts(Source source, const Api::StateNotification& notification);

    /// The source starts anew, and may send all that it has sent before once more.
    void restart(Source source);

private:
    /// How many equal notifications a source has sent, in one of its rounds.
    struct Count {
        Source source = own;
        std::uint32_t round = 0;
        std::uint32_t number = 0;
        bool isOrigin = false;  // counted without being asked for: not of a circle
    };
    using Hash = std::uint64_t;
    struct Entry {
        Hash hash;
        Source source;
        std::uint32_t round;
    };
    struct SourceState {
        std::uint32_t round = 0;
        double repetitions = repetitionsAtOnce;  // that may follow at once
        Time updatedAt;
    };

    static constexpr double repetitionsAtOnce = 30'000;
    static constexpr double repetitionsPerSecond = 100;

    static Hash hashOf(const Api::StateNotification& notification);
    static bool isFirst(Source source, const std::vector<Count>& counts);
    bool isAccepted(Source source, bool hasTime, const std::vector<Count>& counts);
    bool mayRepeat(SourceState& state) const;
    void remember(const Entry& entry, bool isOrigin);
    void forgetOldest();

    std::size_t m_memory;
    const std::function<Time()> m_clock;
    std::unordered_map<Source, SourceState> m_sources;
    std::unordered_map<Hash, std::vector<Count>> m_counts;
    std::deque<Entry> m_entries;  // oldest first
};

}  // namespace Hox::Capability::StateMonitoring
