#include "hox/cpputil/semaphore/counting_semaphore.h"

namespace Hox::CppUtil {

void CountingSemaphore::post() {
    // Notified under the lock: the waiter may destroy the semaphore once it has the mutex.
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_count;
    m_condition.notify_one();
}

void CountingSemaphore::wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_condition.wait(lock, [this] { return m_count > 0; });
    --m_count;
}

bool CountingSemaphore::waitUntil(std::chrono::steady_clock::time_point timePoint) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_condition.wait_until(lock, timePoint, [this] { return m_count > 0; })) {
        return false;
    }
    --m_count;
    return true;
}

}  // namespace Hox::CppUtil
