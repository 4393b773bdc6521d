#include "circle_guard.h"

#include <algorithm>
#include <functional>

namespace Hox::Capability::StateMonitoring {

CircleGuard::CircleGuard(std::size_t memory) : m_memory(memory) {}

void CircleGuard::count(Source source, const Api::StateNotification& notification) {
    remember({hashOf(notification), source, roundOf(source)});
}

bool CircleGuard::accepts(Source source, const Api::StateNotification& notification) {
    const Hash hash = hashOf(notification);
    const auto round = roundOf(source);
    const auto found = m_counts.find(hash);
    if (found != m_counts.end() && !isAccepted(source, round, found->second)) {
        return false;
    }
    remember({hash, source, round});
    return true;
}

std::uint32_t CircleGuard::roundOf(Source source) const {
    const auto round = m_rounds.find(source);
    return round == m_rounds.end() ? 0 : round->second;
}

void CircleGuard::restart(Source source) {
    ++m_rounds[source];
}

CircleGuard::Hash CircleGuard::hashOf(const Api::StateNotification& notification) {
    return std::hash<std::string>()(notification.SerializeAsString());
}

bool CircleGuard::isAccepted(Source source, std::uint32_t round, const std::vector<Count>& counts) {
    std::uint32_t sent = 0;
    std::uint32_t most = 0;
    for (const auto& count : counts) {
        if (count.source != source) {
            most = std::max(most, count.number);
        } else if (count.round == round) {
            sent = count.number;
        }
    }
    return most == 0 || sent < most;
}

void CircleGuard::remember(const Entry& entry) {
    auto& counts = m_counts[entry.hash];
    const auto same = std::find_if(counts.begin(), counts.end(), [&](const Count& count) {
        return count.source == entry.source && count.round == entry.round;
    });
    if (same != counts.end()) {
        ++same->number;
    } else {
        counts.push_back({entry.source, entry.round, 1});
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
