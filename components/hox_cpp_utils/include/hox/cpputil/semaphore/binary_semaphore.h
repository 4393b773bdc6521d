#pragma once

#include <condition_variable>
#include <mutex>

namespace Hox::CppUtil {

/// A signal that is either set or not: several posts count as one. Any thread may call it.
///
/// It may be destroyed as soon as the last wait has returned, even if the post that released this
/// wait has not returned yet.
class BinarySemaphore {
public:
    /// Starts unsignalled.
    BinarySemaphore() = default;
    virtual ~BinarySemaphore() = default;
    BinarySemaphore(const BinarySemaphore&) = delete;
    BinarySemaphore& operator=(const BinarySemaphore&) = delete;

    /// Sets the signal and wakes one waiting thread. Never blocks on a waiter.
    virtual void post();

    /// Blocks until the signal is set, then resets it: the next wait needs a new post.
    void wait();

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_signalled = false;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::CppUtil
