#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "hox/cpputil/semaphore/counting_semaphore.h"

namespace Hox::CppUtil {

/// Runs callbacks at given points in time on its own single thread: a slow callback delays all
/// later items.
///
/// A callback runs without any lock of the timer held, so it may add and cancel items. It must not
/// throw (this ends the process) and must not destroy the timer. Its argument is true if the timer
/// is being destroyed: then the item may run early, and the callback must not add items.
class Timer {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Callback = std::function<void(bool)>;

    /// Starts the thread; throws std::system_error if that fails.
    Timer();

    /// Runs the pending items immediately, in no particular order, each with true, and joins the
    /// thread. An item that remains afterwards fails an assertion. Must not run on the timer
    /// thread; no other thread may add items during it.
    ~Timer();

    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// Schedules the callback to run once at the time point, or immediately if that has passed.
    /// Items of the same time point run in the order in which they were added.
    ///
    /// Returns the item's tag: never 0, and unique within this timer. Any thread may call it.
    /// Throws InvalidArgumentError for an empty callback; nothing is added then.
    std::uint64_t add(TimePoint when, Callback callback);

    /// Cancels an item. Returns true if its callback will not run; its captures are released before
    /// the return. Returns false if there is no such pending item, for example because it has run,
    /// is running, or was run by the destructor. Any thread may call it.
    bool cancel(std::uint64_t tag);

private:
    struct Item {
        TimePoint when;
        std::uint64_t tag = 0;
        Callback callback;  // empty: the item has been cancelled
    };

    static bool comesLater(const Item& left, const Item& right);

    void run();
    std::optional<TimePoint> nextDeadline();
    void runDueItems();

    // Both under m_mutex.
    std::uint64_t pushItem(TimePoint when, Callback callback);
    Item popItem();

    std::thread m_thread;
    std::mutex m_mutex;   // no other lock is taken and no callback runs under it
    bool m_done = false;  // timer thread only
    CountingSemaphore m_semaphore;
    // A heap with the earliest item on top. NOLINTNEXTLINE(readability-identifier-naming)
    std::vector<Item> m_Items;    // GUARDED_BY(m_mutex)
    std::uint64_t m_nextTag = 1;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::CppUtil
