#pragma once

#include <grpcpp/completion_queue.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

namespace Hox::ObserverTree {

/// Reads from the network for the whole process while nobody else does.
///
/// One thread that waits in a polling queue reads for all; a second one would cost each event a
/// switch between threads. But a thread that runs a handler does not read. This object's thread
/// takes over when no thread has waited in a polling queue for two to four milliseconds, and stops
/// soon after one waits again. It runs no handler, and sleeps while nothing happens.
class StandbyPoller {
public:
    /// Takes the queue to read in: one of the server that no call uses. Does nothing before
    /// start().
    explicit StandbyPoller(std::unique_ptr<grpc::CompletionQueue> queue);

    /// Ends the thread and the queue. The queue's server has been shut down, but still exists.
    ~StandbyPoller();
    StandbyPoller(const StandbyPoller&) = delete;
    StandbyPoller(StandbyPoller&&) = delete;
    StandbyPoller& operator=(const StandbyPoller&) = delete;
    StandbyPoller& operator=(StandbyPoller&&) = delete;

    /// Starts the thread, once the server runs. Throws std::system_error where there can be none.
    void start();

    /// The wait of a thread in a polling queue, as long as it lives. Null for a thread that nobody
    /// stands in for. Costs two atomic operations.
    class Wait {
    public:
        explicit Wait(StandbyPoller* poller);
        ~Wait();
        Wait(const Wait&) = delete;
        Wait(Wait&&) = delete;
        Wait& operator=(const Wait&) = delete;
        Wait& operator=(Wait&&) = delete;

    private:
        StandbyPoller* const m_poller;
    };

    /// How often the thread looks, unless it sleeps.
    static constexpr std::chrono::milliseconds lookInterval{2};

    /// How long the thread reads before it looks again.
    static constexpr std::chrono::milliseconds pollInterval{5};

private:
    void run();
    bool pause();
    void sleep();
    void poll();
    void wake();

    static bool nobodyWaits(std::uint64_t waits);

    const std::unique_ptr<grpc::CompletionQueue> m_queue;
    std::thread m_thread;
    /// How many threads wait, in the lower half; how many waits have ended, in the upper.
    std::atomic<std::uint64_t> m_waits{0};
    std::atomic<bool> m_isAsleep{false};
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_isToEnd = false;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::ObserverTree
