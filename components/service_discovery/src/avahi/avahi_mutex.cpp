#include "avahi/avahi_mutex.h"

namespace Hox::Service::Discovery::Avahi {

void AvahiMutex::lock() {
    if (lockAgain()) {
        return;
    }
    const std::lock_guard<std::timed_mutex> next(m_next);
    m_mutex.lock();
    own();
}

bool AvahiMutex::tryLockUntil(std::chrono::steady_clock::time_point deadline) {
    if (lockAgain()) {
        return true;
    }
    const std::unique_lock<std::timed_mutex> next(m_next, deadline);
    if (!next || !m_mutex.try_lock_until(deadline)) {
        return false;
    }
    own();
    return true;
}

void AvahiMutex::unlock() {
    if (--m_depth == 0) {
        m_owner = std::thread::id();
        m_mutex.unlock();
    }
}

bool AvahiMutex::lockAgain() {
    if (m_owner != std::this_thread::get_id()) {
        return false;
    }
    ++m_depth;
    return true;
}

void AvahiMutex::own() {
    m_owner = std::this_thread::get_id();
    m_depth = 1;
}

}  // namespace Hox::Service::Discovery::Avahi
