#include "avahi/fair_mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

namespace Hox::Service::Discovery::Avahi {
namespace {

using std::chrono::milliseconds;

std::chrono::steady_clock::time_point in(milliseconds time) {
    return std::chrono::steady_clock::now() + time;
}

bool isFree(FairMutex& mutex) {
    return std::async(std::launch::async,
                      [&] {
                          const bool taken = mutex.tryLockUntil(in(milliseconds(0)));
                          if (taken) {
                              mutex.unlock();
                          }
                          return taken;
                      })
        .get();
}

TEST(FairMutex, IsTakenAsOftenAsItIsLetGo) {
    FairMutex mutex;
    mutex.lock();
    mutex.lock();
    EXPECT_TRUE(mutex.tryLockUntil(in(milliseconds(0))));
    mutex.unlock();
    mutex.unlock();
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(FairMutex, GivesUpAtTheDeadline) {
    FairMutex mutex;
    const std::lock_guard<FairMutex> lock(mutex);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(std::async(std::launch::async, [&] {
                     return mutex.tryLockUntil(in(milliseconds(20)));
                 }).get());
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(20));
}

TEST(FairMutex, IsLeftAsItWasByAnAttemptThatFails) {
    FairMutex mutex;
    mutex.lock();
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(FairMutex, KeepsThreadsApart) {
    FairMutex mutex;
    int count = 0;
    const auto add = [&] {
        for (int i = 0; i < 10000; ++i) {
            const std::lock_guard<FairMutex> outer(mutex);
            const std::lock_guard<FairMutex> inner(mutex);
            ++count;
        }
    };
    std::thread first(add);
    std::thread second(add);
    first.join();
    second.join();
    EXPECT_EQ(count, 20000);
}

TEST(FairMutex, ReachesWhoeverWaitsAlthoughAnotherTakesItAgainAtOnce) {
    FairMutex mutex;
    std::atomic<bool> done = false;
    std::atomic<int> turns = 0;
    std::thread busy([&] {
        while (!done) {
            const std::lock_guard<FairMutex> lock(mutex);
            ++turns;
            // Long enough for the others to ask meanwhile.
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    for (int i = 0; i < 50; ++i) {
        const auto before = turns.load();
        const std::lock_guard<FairMutex> lock(mutex);
        // The turn that was under way, and one that may have begun before the question.
        EXPECT_LE(turns - before, 2);
    }
    done = true;
    busy.join();
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
