#include "hox/cpputil/timer/timer.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::CppUtil {

Timer::Timer() {
    // Not an initializer: the thread uses members that are declared after m_thread.
    m_thread = std::thread([this] { run(); });
}

Timer::~Timer() {
    {
        // Equal items form a heap in any order.
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& item : m_Items) {
            if (item.tag != 0) {
                item.when = TimePoint();
                item.tag = 0;
            }
        }
    }
    m_semaphore.post();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        pushItem(std::chrono::steady_clock::now(), [this](bool) { m_done = true; });
    }
    m_semaphore.post();
    m_thread.join();
}

std::uint64_t Timer::add(TimePoint when, Callback callback) {
    if (!callback) {
        throw InvalidArgumentError("timer callback has no target", __FILE__, __LINE__);
    }
    std::uint64_t tag = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        tag = pushItem(when, std::move(callback));
    }
    m_semaphore.post();
    return tag;
}

bool Timer::cancel(std::uint64_t tag) {
    // Destroyed after the lock is released: the captures of the callback may use the timer when
    // they are destroyed.
    Callback cancelled;
    if (tag == 0) {
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto item = std::find_if(m_Items.begin(), m_Items.end(),
                                       [tag](const Item& each) { return each.tag == tag; });
        if (item == m_Items.end() || !item->callback) {
            return false;
        }
        cancelled.swap(item->callback);
    }
    m_semaphore.post();
    return true;
}

bool Timer::comesLater(const Item& left, const Item& right) {
    return std::tie(left.when, left.tag) > std::tie(right.when, right.tag);
}

void Timer::run() {
    while (!m_done) {
        if (const auto deadline = nextDeadline()) {
            m_semaphore.waitUntil(*deadline);
        } else {
            m_semaphore.wait();
        }
        runDueItems();
    }
    getAssertion().assertTrue(m_Items.empty(), "m_Items.size() == 0", __FILE__, __LINE__);
}

std::optional<Timer::TimePoint> Timer::nextDeadline() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    while (!m_Items.empty() && !m_Items.front().callback) {
        popItem();
    }
    return m_Items.empty() ? std::nullopt : std::make_optional(m_Items.front().when);
}

void Timer::runDueItems() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_Items.empty() && std::chrono::steady_clock::now() >= m_Items.front().when) {
        {
            // Destroyed before the lock is taken again: the captures of the callback may use the
            // timer.
            const auto item = popItem();
            lock.unlock();
            if (item.callback) {
                item.callback(item.tag == 0);
            }
        }
        lock.lock();
    }
}

std::uint64_t Timer::pushItem(TimePoint when, Callback callback) {
    const auto tag = m_nextTag++;
    m_Items.push_back({when, tag, std::move(callback)});
    std::push_heap(m_Items.begin(), m_Items.end(), comesLater);
    return tag;
}

Timer::Item Timer::popItem() {
    std::pop_heap(m_Items.begin(), m_Items.end(), comesLater);
    auto item = std::move(m_Items.back());
    m_Items.pop_back();
    return item;
}

}  // namespace Hox::CppUtil
