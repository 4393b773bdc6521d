#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

/// Ends the journey of notifications that come back to where they have been, because monitors
/// observe each other in a circle. Asked for the notifications of peers that observe others.
///
/// Counts equal notifications, time stamp included, by the source from which they arrive. A
/// notification that only one source sends is always accepted. One that another source has sent,
/// too, is accepted from a source as long as it has sent fewer of them than the other one: in a
/// circle each monitor accepts one more copy, then no further one. Not thread-safe.
class CircleGuard {
public:
    /// Where a notification comes from: a number for each peer, or this monitor itself.
    using Source = std::uint32_t;
    static constexpr Source own = 0;

    /// Remembers the last `memory` notifications.
    explicit CircleGuard(std::size_t memory);

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
    };
    using Hash = std::uint64_t;
    struct Entry {
        Hash hash;
        Source source;
        std::uint32_t round;
    };

    std::uint32_t roundOf(Source source) const;
    static Hash hashOf(const Api::StateNotification& notification);
    static bool isAccepted(Source source, std::uint32_t round, const std::vector<Count>& counts);
    void remember(const Entry& entry);
    void forgetOldest();

    std::size_t m_memory;
    std::unordered_map<Source, std::uint32_t> m_rounds;
    std::unordered_map<Hash, std::vector<Count>> m_counts;
    std::deque<Entry> m_entries;  // oldest first
};

}  // namespace Hox::Capability::StateMonitoring
