#include "hox/observer_tree/grpc/standby_poller.h"

#include <utility>

namespace Hox::ObserverTree {

namespace {

constexpr std::uint64_t oneWaiting = 1;
constexpr std::uint64_t oneEnded = std::uint64_t{1} << 32U;

// Number of checks without a change before the thread sleeps.
constexpr int quietLooks = 2;

}  // namespace

StandbyPoller::StandbyPoller(std::unique_ptr<grpc::CompletionQueue> queue)
    : m_queue(std::move(queue)) {}

StandbyPoller::~StandbyPoller() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isToEnd = true;
    }
    m_condition.notify_one();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    m_queue->Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (m_queue->Next(&tag, &ok)) {
    }
}

void StandbyPoller::start() {
    m_thread = std::thread([this] { run(); });
}

StandbyPoller::Wait::Wait(StandbyPoller* poller) : m_poller(poller) {
    if (m_poller != nullptr) {
        m_poller->m_waits += oneWaiting;
    }
}

StandbyPoller::Wait::~Wait() {
    if (m_poller == nullptr) {
        return;
    }
    const auto waits = m_poller->m_waits += oneEnded - oneWaiting;
    if (nobodyWaits(waits) && m_poller->m_isAsleep) {
        m_poller->wake();
    }
}

bool StandbyPoller::nobodyWaits(std::uint64_t waits) {
    return waits % oneEnded == 0;
}

void StandbyPoller::run() {
    int quiet = 0;
    auto before = m_waits.load();
    while (pause()) {
        const auto waits = m_waits.load();
        quiet = waits == before ? quiet + 1 : 0;
        before = waits;
        if (quiet > 0 && nobodyWaits(waits)) {
            poll();
        } else if (quiet == quietLooks) {
            sleep();
            quiet = 0;
        }
    }
}

/// Returns false if the thread must end.
bool StandbyPoller::pause() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_condition.wait_for(lock, lookInterval, [this] { return m_isToEnd; });
}

void StandbyPoller::sleep() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_isAsleep = true;
    if (nobodyWaits(m_waits)) {
        m_isAsleep = false;  // a thread whose wait has just ended may not have seen the sleeper
    }
    m_condition.wait(lock, [this] { return m_isToEnd || !m_isAsleep; });
}

void StandbyPoller::wake() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isAsleep = false;
    }
    m_condition.notify_one();
}

void StandbyPoller::poll() {
    void* tag = nullptr;
    bool ok = false;
    m_queue->AsyncNext(&tag, &ok, std::chrono::system_clock::now() + pollInterval);
}

}  // namespace Hox::ObserverTree
