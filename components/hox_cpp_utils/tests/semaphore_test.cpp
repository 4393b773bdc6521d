#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "hox/cpputil/semaphore/binary_semaphore.h"
#include "hox/cpputil/semaphore/counting_semaphore.h"
#include "hox/testing/wait_until.h"

namespace Hox::CppUtil {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto longEnough = 30s;

TEST(CountingSemaphore, StartsAtZero) {
    CountingSemaphore semaphore;
    EXPECT_FALSE(semaphore.waitUntil(Clock::now()));
}

TEST(CountingSemaphore, LetsAsManyWaitsPassAsThereWerePosts) {
    CountingSemaphore semaphore;
    semaphore.post();
    semaphore.post();
    semaphore.post();
    semaphore.wait();
    EXPECT_TRUE(semaphore.waitUntil(Clock::now() + longEnough));
    EXPECT_TRUE(semaphore.waitUntil(Clock::now() + longEnough));
    EXPECT_FALSE(semaphore.waitUntil(Clock::now()));
}

TEST(CountingSemaphore, TakesAPostAlsoWhenTheTimePointHasPassed) {
    CountingSemaphore semaphore;
    semaphore.post();
    EXPECT_TRUE(semaphore.waitUntil(Clock::time_point()));
    EXPECT_FALSE(semaphore.waitUntil(Clock::time_point()));
}

TEST(CountingSemaphore, AWaitThatGivesUpTakesNothing) {
    CountingSemaphore semaphore;
    EXPECT_FALSE(semaphore.waitUntil(Clock::now()));
    semaphore.post();
    EXPECT_TRUE(semaphore.waitUntil(Clock::now()));
}

TEST(CountingSemaphore, DoesNotGiveUpBeforeTheTimePoint) {
    CountingSemaphore semaphore;
    const auto timePoint = Clock::now() + 20ms;
    EXPECT_FALSE(semaphore.waitUntil(timePoint));
    EXPECT_GE(Clock::now(), timePoint);
}

TEST(CountingSemaphore, APostWakesAWaitWithADeadline) {
    CountingSemaphore semaphore;
    auto waiter = std::async(
        std::launch::async, [&semaphore] { return semaphore.waitUntil(Clock::time_point::max()); });
    semaphore.post();
    ASSERT_EQ(waiter.wait_for(longEnough), std::future_status::ready);
    EXPECT_TRUE(waiter.get());
}

TEST(CountingSemaphore, NoPostIsLostAmongManyThreads) {
    constexpr int threadCount = 4;
    constexpr int rounds = 2000;
    CountingSemaphore semaphore;
    std::atomic<int> passed{0};
    std::vector<std::thread> threads;
    threads.reserve(std::size_t{2} * threadCount);
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&semaphore] {
            for (int round = 0; round < rounds; ++round) {
                semaphore.post();
            }
        });
        threads.emplace_back([&semaphore, &passed] {
            for (int round = 0; round < rounds; ++round) {
                semaphore.wait();
                ++passed;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(passed, threadCount * rounds);
    EXPECT_FALSE(semaphore.waitUntil(Clock::now()));
}

TEST(BinarySemaphore, APostAheadOfTheWaitIsKept) {
    BinarySemaphore semaphore;
    semaphore.post();
    semaphore.wait();
}

bool isReady(const std::future<void>& future) {
    return future.wait_for(0s) == std::future_status::ready;
}

/// Two waits after two posts. Many rounds: a wait that is released by mistake takes a moment to
/// show.
TEST(BinarySemaphore, SeveralPostsReleaseOneWaitOnly) {
    for (int round = 0; round < 300; ++round) {
        BinarySemaphore semaphore;
        semaphore.post();
        semaphore.post();
        const auto wait = [&semaphore] { semaphore.wait(); };
        auto one = std::async(std::launch::async, wait);
        auto other = std::async(std::launch::async, wait);
        ASSERT_TRUE(Testing::waitUntil([&] { return isReady(one) || isReady(other); }));
        EXPECT_NE(isReady(one), isReady(other)) << "round " << round;
        semaphore.post();
        ASSERT_TRUE(Testing::waitUntil([&] { return isReady(one) && isReady(other); }));
    }
}

TEST(BinarySemaphore, APostWakesOneWaiterAtATime) {
    BinarySemaphore semaphore;
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    waiters.reserve(3);
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&semaphore, &passed] {
            semaphore.wait();
            ++passed;
        });
    }
    for (int expected = 1; expected <= 3; ++expected) {
        semaphore.post();
        const auto deadline = Clock::now() + longEnough;
        while (passed < expected && Clock::now() < deadline) {
            std::this_thread::yield();
        }
        EXPECT_EQ(passed, expected);
    }
    for (auto& waiter : waiters) {
        waiter.join();
    }
}

TEST(BinarySemaphore, PostMayBeOverridden) {
    class Counted : public BinarySemaphore {
    public:
        void post() override {
            ++m_posts;
            BinarySemaphore::post();
        }
        int posts() const { return m_posts; }

    private:
        int m_posts = 0;
    };
    Counted counted;
    BinarySemaphore& semaphore = counted;
    semaphore.post();
    semaphore.wait();
    EXPECT_EQ(counted.posts(), 1);
}

template <typename Semaphore>
void destroyAsSoonAsTheWaitHasReturned() {
    for (int i = 0; i < 200; ++i) {
        auto semaphore = std::make_unique<Semaphore>();
        std::thread poster([pointer = semaphore.get()] { pointer->post(); });
        semaphore->wait();
        semaphore.reset();
        poster.join();
    }
}

TEST(CountingSemaphore, MayBeDestroyedAsSoonAsItsWaitHasReturned) {
    destroyAsSoonAsTheWaitHasReturned<CountingSemaphore>();
}

TEST(BinarySemaphore, MayBeDestroyedAsSoonAsItsWaitHasReturned) {
    destroyAsSoonAsTheWaitHasReturned<BinarySemaphore>();
}

TEST(CountingSemaphore, IsPolymorphic) {
    EXPECT_TRUE(std::has_virtual_destructor_v<CountingSemaphore>);
}

TEST(BinarySemaphore, IsPolymorphic) {
    EXPECT_TRUE(std::has_virtual_destructor_v<BinarySemaphore>);
}

}  // namespace
}  // namespace Hox::CppUtil
