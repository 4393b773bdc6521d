#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Hox::CppUtil {

/// A semaphore that counts its posts: each post lets one wait pass. Any thread may call it.
///
/// It may be destroyed as soon as the last wait has returned, even if the post that released this
/// wait has not returned yet.
class CountingSemaphore {
public:
    /// Starts with a count of 0.
    CountingSemaphore() = default;
    virtual ~CountingSemaphore() = default;
    CountingSemaphore(const CountingSemaphore&) = delete;
    CountingSemaphore& operator=(const CountingSemaphore&) = delete;

    /// Increments the count and wakes one waiting thread. Never blocks on a waiter.
    void post();

    /// Blocks until the count is above 0, then decrements it.
    void wait();

    /// Like wait, but gives up at the time point. Returns whether the count was decremented. A
    /// count above 0 is decremented even if the time point has passed.
    bool waitUntil(std::chrono::steady_clock::time_point timePoint);

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    unsigned m_count = 0;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::CppUtil
