#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

namespace Hox::Service::Discovery::Avahi {

/// Guards all Avahi objects of a client. Recursive, as a callback may drop handles, and fair: the
/// event loop, which takes it again after each poll, cannot keep others from it while events pour
/// in.
class AvahiMutex {
public:
    /// Waits until the mutex is free and takes it; the owner takes it once more.
    void lock();

    /// The same with an end to the wait; returns whether the mutex was taken.
    bool tryLockUntil(std::chrono::steady_clock::time_point deadline);

    /// Undoes one lock.
    void unlock();

private:
    bool lockAgain();
    void own();

    // Held by the thread that takes m_mutex next, so that the thread that unlocks it queues after
    // that.
    std::timed_mutex m_next;  // taken before m_mutex
    std::timed_mutex m_mutex;
    std::atomic<std::thread::id> m_owner = std::thread::id();
    int m_depth = 0;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Service::Discovery::Avahi
