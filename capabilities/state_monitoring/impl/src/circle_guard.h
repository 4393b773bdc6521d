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

/// Stops notifications that would travel without end between monitors that observe each other in a
/// circle. Only used for the notifications of peers that observe others.
///
/// Counts equal notifications, including the time stamp, per source. If another source has also
/// sent a notification, it is accepted from this source only while this source has sent fewer of
/// them: each monitor of a circle accepts one more copy, then no more. If only one source sends it,
/// it is accepted with these limits:
/// - with a time stamp, not more often than before the last restart of the source;
/// - without a time stamp, where a repetition can be news, up to a rate that only a circle exceeds.
///   Of several sources that repeat it, the first one may continue.
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

    /// The source starts again: it may send everything that it has sent before once more.
    void restart(Source source);

private:
    /// How many equal notifications a source has sent between two restarts.
    struct Count {
        Source source = own;
        std::uint32_t round = 0;
        std::uint32_t number = 0;
        bool isOrigin = false;  // counted by count(): cannot be part of a circle
    };
    using Hash = std::uint64_t;
    struct Entry {
        Hash hash;
        Source source;
        std::uint32_t round;
    };
    struct SourceState {
        std::uint32_t round = 0;
        double repetitions = repetitionsAtOnce;  // that are accepted now
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
