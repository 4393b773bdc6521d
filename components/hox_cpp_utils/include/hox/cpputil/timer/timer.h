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

/// Runs callbacks at points in time, all on one thread of its own: a slow callback delays all
/// later items.
///
/// A callback runs without any lock of the timer held, so it may add and cancel items. It must not
/// throw (this ends the process) and must not destroy the timer. Its argument says that the timer
/// is going away: then the item may have come early, and nothing may be added any more.
class Timer {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Callback = std::function<void(bool)>;

    /// Starts the thread; throws std::system_error if there is none to be had.
    Timer();

    /// Runs off the pending items at once and in no particular order, each with true, and joins the
    /// thread. An item that is still there afterwards fails an assertion. Not for the timer thread;
    /// no other thread may add items any more.
    ~Timer();

    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// Has the callback run once at the time point, or at once if this has passed. Items of the
    /// same time point run in the order in which they were added.
    ///
    /// Returns the item's tag, never 0 and never given twice by this timer. Any thread may call it;
    /// throws InvalidArgumentError for an empty callback, with nothing added.
    std::uint64_t add(TimePoint when, Callback callback);

    /// Takes back an item. Returns true if its callback will not run; what it captured is released
    /// before the return. Returns false if there is no such pending item, for example because it
    /// has run, is just running, or was run off by the destruction. Any thread may call it.
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
    std::mutex m_mutex;   // held alone: nothing is locked and no callback runs under it
    bool m_done = false;  // timer thread only
    CountingSemaphore m_semaphore;
    // A heap with the earliest item on top. NOLINTNEXTLINE(readability-identifier-naming)
    std::vector<Item> m_Items;    // GUARDED_BY(m_mutex)
    std::uint64_t m_nextTag = 1;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::CppUtil
