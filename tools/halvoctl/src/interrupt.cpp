#include "interrupt.h"

#include <utility>

namespace Hox::Ctl {

void Interrupt::request() {
    const std::lock_guard lock(m_mutex);
    if (std::exchange(m_isRequested, true)) {
        return;
    }
    for (const auto& callback : m_callbacks) {
        callback();
    }
    m_changed.notify_all();
}

bool Interrupt::isRequested() const {
    const std::lock_guard lock(m_mutex);
    return m_isRequested;
}

bool Interrupt::waitFor(std::chrono::milliseconds time) const {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, time, [this] { return m_isRequested; });
}

std::shared_ptr<void> Interrupt::onRequest(std::function<void()> callback) {
    const std::lock_guard lock(m_mutex);
    if (m_isRequested) {
        callback();
    }
    const auto place = m_callbacks.insert(m_callbacks.end(), std::move(callback));
    return {nullptr, [this, place](void* /*nothing*/) {
                const std::lock_guard eraseLock(m_mutex);
                m_callbacks.erase(place);
            }};
}

}  // namespace Hox::Ctl
