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

/// Reads from the network for the whole process while no other thread does.
///
/// One thread that waits in a polling queue reads for all; a second one would add a thread switch
/// to each event. But a thread that runs a handler does not read. This object's thread takes over
/// when no thread has waited in a polling queue for four to eight milliseconds, and stops soon
/// after one waits again. It runs no handler, and sleeps while there is no activity.
class StandbyPoller {
public:
    /// Takes over the queue to poll: a queue of the server that no call uses. Does nothing before
    /// start().
    explicit StandbyPoller(std::unique_ptr<grpc::CompletionQueue> queue);

    /// Ends the thread and shuts down the queue. The server of the queue has been shut down, but
    /// still exists.
    ~StandbyPoller();
    StandbyPoller(const StandbyPoller&) = delete;
    StandbyPoller(StandbyPoller&&) = delete;
    StandbyPoller& operator=(const StandbyPoller&) = delete;
    StandbyPoller& operator=(StandbyPoller&&) = delete;

    /// Starts the thread; called when the server runs. Throws std::system_error if no thread can be
    /// created.
    void start();

    /// Marks that a thread waits in a polling queue, during the lifetime of this object. The poller
    /// is null for a thread without a standby poller. Costs two atomic operations.
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

    /// The interval of the thread's checks, unless it sleeps.
    static constexpr std::chrono::milliseconds lookInterval{4};

    /// How long the thread reads before it checks again.
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
    /// Lower half: number of waiting threads. Upper half: number of waits that have ended.
    std::atomic<std::uint64_t> m_waits{0};
    std::atomic<bool> m_isAsleep{false};
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_isToEnd = false;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::ObserverTree
