#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <thread>

namespace Hox::Service::Discovery::Avahi {

/// A recursive mutex that threads get in the order in which they ask for it. A client guards its
/// Avahi objects with one: a callback may drop handles, and the event loop, which takes the mutex
/// again after each poll, cannot starve other threads while events pour in.
class FairMutex {
public:
    /// Waits for its turn and takes the mutex; the owner takes it once more.
    void lock();

    /// The same with an end to the wait; returns whether the mutex was taken.
    bool tryLockUntil(std::chrono::steady_clock::time_point deadline);

    /// Undoes one lock.
    void unlock();

private:
    // Under m_state.
    bool lockAgain();
    bool isTurnOf(std::uint64_t turn) const;
    void own();

    std::mutex m_state;  // nothing else is locked under it
    std::condition_variable m_changed;
    std::list<std::uint64_t> m_turns;  // of the waiting threads, in order. GUARDED_BY(m_state)
    std::uint64_t m_nextTurn = 0;      // GUARDED_BY(m_state)
    std::thread::id m_owner;           // GUARDED_BY(m_state)
    int m_depth = 0;                   // GUARDED_BY(m_state)
};

}  // namespace Hox::Service::Discovery::Avahi
