#include "avahi/fair_mutex.h"

namespace Hox::Service::Discovery::Avahi {

void FairMutex::lock() {
    std::unique_lock<std::mutex> state(m_state);
    if (lockAgain()) {
        return;
    }
    const auto turn = m_turns.insert(m_turns.end(), m_nextTurn++);
    m_changed.wait(state, [&] { return isTurnOf(*turn); });
    m_turns.erase(turn);
    own();
}

bool FairMutex::tryLockUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> state(m_state);
    if (lockAgain()) {
        return true;
    }
    const auto turn = m_turns.insert(m_turns.end(), m_nextTurn++);
    const bool taken = m_changed.wait_until(state, deadline, [&] { return isTurnOf(*turn); });
    m_turns.erase(turn);
    if (taken) {
        own();
    } else {
        m_changed.notify_all();
    }
    return taken;
}

void FairMutex::unlock() {
    const std::lock_guard<std::mutex> state(m_state);
    if (--m_depth == 0) {
        m_owner = std::thread::id();
        m_changed.notify_all();
    }
}

bool FairMutex::lockAgain() {
    if (m_owner != std::this_thread::get_id()) {
        return false;
    }
    ++m_depth;
    return true;
}

bool FairMutex::isTurnOf(std::uint64_t turn) const {
    return m_depth == 0 && m_turns.front() == turn;
}

void FairMutex::own() {
    m_owner = std::this_thread::get_id();
    m_depth = 1;
}

}  // namespace Hox::Service::Discovery::Avahi
