#include "circle_guard.h"

#include <algorithm>
#include <utility>

namespace Hox::Capability::StateMonitoring {

CircleGuard::CircleGuard(std::size_t memory, std::function<Time()> clock)
    : m_memory(memory), m_clock(std::move(clock)) {}

void CircleGuard::count(Source source, const Api::StateNotification& notification) {
    remember({hashOf(notification), source, m_sources[source].round}, true);
}

bool CircleGuard::accepts(Source source, const Api::StateNotification& notification) {
    const Hash hash = hashOf(notification);
    const auto found = m_counts.find(hash);
    if (found != m_counts.end() &&
        !isAccepted(source, notification.has_timestamp(), found->second)) {
        return false;
    }
    remember({hash, source, m_sources[source].round}, false);
    return true;
}

void CircleGuard::restart(Source source) {
    ++m_sources[source].round;
}

CircleGuard::Hash CircleGuard::hashOf(const Api::StateNotification& notification) {
    return std::hash<std::string>()(notification.SerializeAsString());
}

bool CircleGuard::isAccepted(Source source, bool hasTime, const std::vector<Count>& counts) {
    auto& state = m_sources[source];
    std::uint32_t sent = 0;
    std::uint32_t sentBefore = 0;  // before a restart
    std::uint32_t most = 0;        // of another source
    for (const auto& count : counts) {
        if (count.source != source) {
            most = std::max(most, count.number);
        } else if (count.round == state.round) {
            sent = count.number;
        } else {
            sentBefore = std::max(sentBefore, count.number);
        }
    }
    if (hasTime) {
        const auto limit = std::max(most, sentBefore);
        return limit == 0 || sent < limit;
    }
    if (sent < most || sent == 0) {
        return true;
    }
    return isFirst(source, counts) && mayRepeat(state);
}

/// Whether all other sources may have received it from this one.
bool CircleGuard::isFirst(Source source, const std::vector<Count>& counts) {
    return counts.front().source == source &&
           std::none_of(counts.begin(), counts.end(), [&](const Count& count) {
               return count.source != source && count.isOrigin;
           });
}

bool CircleGuard::mayRepeat(SourceState& state) const {
    const auto now = m_clock();
    const std::chrono::duration<double> pause = now - std::exchange(state.updatedAt, now);
    state.repetitions =
        std::min(state.repetitions + pause.count() * repetitionsPerSecond, repetitionsAtOnce);
    if (state.repetitions < 1) {
        return false;
    }
    --state.repetitions;
    return true;
}

void CircleGuard::remember(const Entry& entry, bool isOrigin) {
    auto& counts = m_counts[entry.hash];
    const auto same = std::find_if(counts.begin(), counts.end(), [&](const Count& count) {
        return count.source == entry.source && count.round == entry.round;
    });
    if (same != counts.end()) {
        ++same->number;
        same->isOrigin = same->isOrigin || isOrigin;
    } else {
        counts.push_back({entry.source, entry.round, 1, isOrigin});
    }
    m_entries.push_back(entry);
    if (m_entries.size() > m_memory) {
        forgetOldest();
    }
}

void CircleGuard::forgetOldest() {
    const Entry oldest = m_entries.front();
    m_entries.pop_front();
    const auto counts = m_counts.find(oldest.hash);
    const auto count =
        std::find_if(counts->second.begin(), counts->second.end(), [&](const Count& candidate) {
            return candidate.source == oldest.source && candidate.round == oldest.round;
        });
    if (--count->number == 0) {
        counts->second.erase(count);
    }
    if (counts->second.empty()) {
        m_counts.erase(counts);
    }
}

}  // namespace Hox::Capability::StateMonitoring
