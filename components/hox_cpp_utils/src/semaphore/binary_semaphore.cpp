#include "hox/cpputil/semaphore/binary_semaphore.h"

namespace Hox::CppUtil {

void BinarySemaphore::post() {
    // Notified under the lock: the waiter may destroy the semaphore once it has the mutex.
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_signalled = true;
    m_condition.notify_one();
}

void BinarySemaphore::wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_condition.wait(lock, [this] { return m_signalled; });
    m_signalled = false;
}

}  // namespace Hox::CppUtil
