#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace Hox::Ctl {

/// The user's wish to end the command, which any thread may express and any thread may wait for.
class Interrupt {
public:
    /// Calls the callbacks and wakes all that wait. A second call does nothing.
    void request();

    /// Whether the end has been requested.
    bool isRequested() const;

    /// Waits that long; returns whether the end has been requested by then.
    bool waitFor(std::chrono::milliseconds time) const;

    /// Calls back, at most once, when the end is requested; immediately, if it has been. The
    /// callback runs under the lock of this object: it must not use it. It is not called after
    /// the returned handle is dropped.
    std::shared_ptr<void> onRequest(std::function<void()> callback);

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    bool m_isRequested = false;                    // GUARDED_BY(m_mutex)
    std::list<std::function<void()>> m_callbacks;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Ctl
