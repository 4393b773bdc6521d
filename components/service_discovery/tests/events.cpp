#include "events.h"

#include <algorithm>

#include "hox/testing/wait_until.h"

namespace Hox::Service::Discovery::Avahi {

ServiceDiscoveryCallback Events::callback() {
    return [this](const Status& status, const NetworkService& service) { add(status, service); };
}

std::function<void(const Status&)> Events::clientCallback() {
    return [this](const Status& status) { add(status, NetworkService()); };
}

std::vector<std::pair<Status, NetworkService>> Events::all() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

std::vector<Status> Events::statuses() const {
    std::vector<Status> result;
    for (const auto& event : all()) {
        result.push_back(event.first);
    }
    return result;
}

std::size_t Events::count(Status status, const std::string& name) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<std::size_t>(
        std::count_if(m_events.begin(), m_events.end(), [&](const auto& event) {
            return event.first == status && (name.empty() || event.second.name == name);
        }));
}

void Events::clear() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
}

bool Events::waitFor(Status status, const std::string& name, std::size_t times) const {
    return Hox::Testing::waitUntil([&] { return count(status, name) >= times; });
}

void Events::add(Status status, const NetworkService& service) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.emplace_back(status, service);
}

}  // namespace Hox::Service::Discovery::Avahi
