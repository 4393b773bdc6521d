#include "hox/cpputil/timer/timer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/cpputil/semaphore/binary_semaphore.h"

namespace Hox::CppUtil {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::ElementsAre;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr auto longEnough = 30s;

Clock::time_point inAnHour() {
    return Clock::now() + 1h;
}

/// Blocks the timer thread in a callback until it is released. May be destroyed before that
/// callback.
class Gate {
public:
    explicit Gate(Timer& timer) {
        timer.add(Clock::time_point(), [state = m_state](bool) {
            state->entered.post();
            state->left.wait();
        });
        m_state->entered.wait();
    }
    void open() { m_state->left.post(); }

private:
    struct State {
        BinarySemaphore entered;
        BinarySemaphore left;
    };
    std::shared_ptr<State> m_state = std::make_shared<State>();
};

/// Returns when everything that is due now has run.
void runOff(Timer& timer) {
    std::promise<void> done;
    timer.add(Clock::now(), [&done](bool) { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(longEnough), std::future_status::ready);
}

TEST(Timer, StartsAndStopsWithoutItems) {
    for (int i = 0; i < 50; ++i) {
        const Timer timer;
    }
}

TEST(Timer, RunsAnItemOfThePastAtTheNextPass) {
    Timer timer;
    std::promise<bool> argument;
    timer.add(Clock::now() - 1h, [&argument](bool goingAway) { argument.set_value(goingAway); });
    auto future = argument.get_future();
    ASSERT_EQ(future.wait_for(longEnough), std::future_status::ready);
    EXPECT_FALSE(future.get());
}

TEST(Timer, DoesNotRunAnItemBeforeItsTime) {
    Timer timer;
    const auto when = Clock::now() + 30ms;
    std::promise<Clock::time_point> ranAt;
    timer.add(when, [&ranAt](bool) { ranAt.set_value(Clock::now()); });
    auto future = ranAt.get_future();
    ASSERT_EQ(future.wait_for(longEnough), std::future_status::ready);
    EXPECT_GE(future.get(), when);
}

TEST(Timer, AnEarlierItemWakesTheThread) {
    Timer timer;
    const auto late = timer.add(inAnHour(), [](bool) {});
    runOff(timer);  // the thread now waits for the late item
    std::promise<void> ran;
    timer.add(Clock::now() + 5ms, [&ran](bool) { ran.set_value(); });
    EXPECT_EQ(ran.get_future().wait_for(longEnough), std::future_status::ready);
    EXPECT_TRUE(timer.cancel(late));
}

TEST(Timer, RunsDueItemsInTheOrderOfTheirTimes) {
    Timer timer;
    Gate gate(timer);
    std::vector<int> order;
    const auto past = Clock::now() - 1h;
    for (const int minute : {3, 1, 5, 2, 4}) {
        timer.add(past + std::chrono::minutes(minute),
                  [&order, minute](bool) { order.push_back(minute); });
    }
    gate.open();
    runOff(timer);
    EXPECT_THAT(order, ElementsAre(1, 2, 3, 4, 5));
}

TEST(Timer, RunsItemsOfOneTimePointInTheOrderOfAdding) {
    Timer timer;
    Gate gate(timer);
    std::vector<int> order;
    const auto when = Clock::now() - 1h;
    for (const int number : {1, 2, 3, 4, 5, 6, 7}) {
        timer.add(when, [&order, number](bool) { order.push_back(number); });
    }
    gate.open();
    runOff(timer);
    EXPECT_THAT(order, ElementsAre(1, 2, 3, 4, 5, 6, 7));
}

TEST(Timer, GivesEachItemATagOfItsOwnThatIsNotZero) {
    Timer timer;
    std::set<std::uint64_t> tags;
    for (int i = 0; i < 100; ++i) {
        tags.insert(timer.add(Clock::time_point(), [](bool) {}));
        tags.insert(timer.add(inAnHour(), [](bool) {}));
    }
    EXPECT_EQ(tags.size(), 200U);
    EXPECT_EQ(tags.count(0), 0U);
}

TEST(Timer, RefusesAnEmptyCallback) {
    Timer timer;
    try {
        timer.add(Clock::now(), nullptr);
        FAIL() << "an empty callback was taken";
    } catch (const InvalidArgumentError& error) {
        EXPECT_THAT(error.what(),
                    StartsWith("Invalid Argument Error: timer callback has no target("));
    }
}

TEST(Timer, ACancelledItemDoesNotRun) {
    Timer timer;
    Gate gate(timer);
    bool ran = false;
    const auto tag = timer.add(Clock::now() - 1h, [&ran](bool) { ran = true; });
    EXPECT_TRUE(timer.cancel(tag));
    gate.open();
    runOff(timer);
    EXPECT_FALSE(ran);
}

TEST(Timer, ACancelledItemOnTopDelaysNothing) {
    Timer timer;
    Gate gate(timer);
    int cancelledRuns = 0;
    int runs = 0;
    const auto past = Clock::now() - 1h;
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(timer.cancel(timer.add(past, [&cancelledRuns](bool) { ++cancelledRuns; })));
    }
    timer.add(past + 1s, [&runs](bool) { ++runs; });
    gate.open();
    runOff(timer);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(cancelledRuns, 0);
}

TEST(Timer, ACancelledItemDoesNotRunAtTheStopEither) {
    bool ran = false;
    {
        Timer timer;
        EXPECT_TRUE(timer.cancel(timer.add(inAnHour(), [&ran](bool) { ran = true; })));
    }
    EXPECT_FALSE(ran);
}

TEST(Timer, CancelsAPendingItemOnceOnly) {
    Timer timer;
    const auto tag = timer.add(inAnHour(), [](bool) {});
    EXPECT_TRUE(timer.cancel(tag));
    EXPECT_FALSE(timer.cancel(tag));
}

TEST(Timer, CannotCancelWhatIsNotPending) {
    Timer timer;
    const auto tag = timer.add(Clock::now(), [](bool) {});
    runOff(timer);
    EXPECT_FALSE(timer.cancel(tag));
    EXPECT_FALSE(timer.cancel(0));
    EXPECT_FALSE(timer.cancel(tag + 1000));
}

TEST(Timer, CannotCancelTheItemThatIsRunning) {
    Timer timer;
    Gate gate(timer);
    std::promise<bool> cancelled;
    std::uint64_t tag = 0;
    tag = timer.add(Clock::now(), [&](bool) { cancelled.set_value(timer.cancel(tag)); });
    gate.open();
    auto future = cancelled.get_future();
    ASSERT_EQ(future.wait_for(longEnough), std::future_status::ready);
    EXPECT_FALSE(future.get());
}

TEST(Timer, CancelReleasesWhatTheCallbackCaptured) {
    Timer timer;
    auto resource = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = resource;
    const auto tag = timer.add(inAnHour(), [resource = std::move(resource)](bool) {});
    EXPECT_FALSE(watch.expired());
    EXPECT_TRUE(timer.cancel(tag));
    EXPECT_TRUE(watch.expired());
}

TEST(Timer, WhatACallbackCapturedMayUseTheTimerWhenItDies) {
    Timer timer;
    std::atomic<int> ran{0};
    const auto addsWhenItDies = [&timer, &ran] {
        return std::shared_ptr<void>(nullptr, [&timer, &ran](void*) {
            timer.add(Clock::time_point(), [&ran](bool) { ++ran; });
        });
    };
    timer.add(Clock::now(), [captured = addsWhenItDies()](bool) {});
    EXPECT_TRUE(timer.cancel(timer.add(inAnHour(), [captured = addsWhenItDies()](bool) {})));
    const auto deadline = Clock::now() + longEnough;
    while (ran < 2 && Clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(ran, 2);
}

TEST(Timer, ACallbackMayAddItems) {
    Timer timer;
    std::promise<int> last;
    int count = 0;
    std::function<void(bool)> again = [&](bool) {
        if (++count < 5) {
            timer.add(Clock::now() + 1ms, again);
        } else {
            last.set_value(count);
        }
    };
    timer.add(Clock::now(), again);
    auto future = last.get_future();
    ASSERT_EQ(future.wait_for(longEnough), std::future_status::ready);
    EXPECT_EQ(future.get(), 5);
}

TEST(Timer, ACallbackMayCancelTheNextItem) {
    Timer timer;
    Gate gate(timer);
    bool ran = false;
    bool cancelled = false;
    const auto past = Clock::now() - 1h;
    const auto tag = timer.add(past + 1s, [&ran](bool) { ran = true; });
    timer.add(past, [&timer, &cancelled, tag](bool) { cancelled = timer.cancel(tag); });
    gate.open();
    runOff(timer);
    EXPECT_TRUE(cancelled);
    EXPECT_FALSE(ran);
}

TEST(Timer, OtherThreadsAddAndCancelWhileACallbackRuns) {
    Timer timer;
    Gate gate(timer);
    auto other = std::async(std::launch::async,
                            [&timer] { return timer.cancel(timer.add(inAnHour(), [](bool) {})); });
    EXPECT_EQ(other.wait_for(longEnough), std::future_status::ready);
    gate.open();
    EXPECT_TRUE(other.get());
}

TEST(Timer, RunsAllCallbacksOnOneThreadOfItsOwn) {
    std::vector<std::thread::id> threads;
    {
        Timer timer;
        Gate gate(timer);
        for (const auto when : {Clock::now(), Clock::now(), inAnHour()}) {
            timer.add(when, [&threads](bool) { threads.push_back(std::this_thread::get_id()); });
        }
        gate.open();
    }
    ASSERT_EQ(threads.size(), 3U);
    EXPECT_NE(threads[0], std::this_thread::get_id());
    EXPECT_EQ(threads[0], threads[1]);
    EXPECT_EQ(threads[0], threads[2]);
}

TEST(Timer, TellsPendingItemsThatItGoesAway) {
    std::vector<std::string> calls;
    {
        Timer timer;
        const auto record = [&calls](const std::string& name) {
            return [&calls, name](bool goingAway) {
                calls.push_back(name + (goingAway ? " going away" : " due"));
            };
        };
        timer.add(Clock::now() - 1h, record("past"));
        runOff(timer);
        timer.add(inAnHour(), record("hour"));
        timer.add(Clock::time_point::max(), record("never"));
        EXPECT_TRUE(timer.cancel(timer.add(inAnHour(), record("cancelled"))));
    }
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front(), "past due");
    EXPECT_THAT(calls, UnorderedElementsAre("past due", "hour going away", "never going away"));
}

TEST(Timer, EachItemRunsOrIsCancelledUnderLoad) {
    constexpr int threadCount = 4;
    constexpr int rounds = 500;
    std::atomic<int> ran{0};
    std::atomic<int> cancelled{0};
    {
        Timer timer;
        std::vector<std::thread> threads;
        for (unsigned seed = 0; seed < threadCount; ++seed) {
            threads.emplace_back([&timer, &ran, &cancelled, seed] {
                std::mt19937 random(seed);
                for (int round = 0; round < rounds; ++round) {
                    const auto delay = std::chrono::microseconds(random() % 2000);
                    const auto tag = timer.add(Clock::now() + delay, [&ran](bool) { ++ran; });
                    if (random() % 2 == 0 && timer.cancel(tag)) {
                        ++cancelled;
                    }
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    }
    EXPECT_GT(ran, 0);
    EXPECT_GT(cancelled, 0);
    EXPECT_EQ(ran + cancelled, threadCount * rounds);
}

/// Each death test runs in a newly started process, because the timer has a thread.
class TimerDeathTest : public testing::Test {
protected:
    void SetUp() override { testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

TEST_F(TimerDeathTest, AnItemThatIsAddedWhileTheTimerGoesAwayFailsTheAssertion) {
    EXPECT_DEATH(
        {
            Timer timer;
            timer.add(inAnHour(), [&timer](bool) { timer.add(inAnHour(), [](bool) {}); });
        },
        "Assertion failed: \\[m_Items\\.size\\(\\) == 0\\] \n"
        "at:.*/timer\\.cpp:[0-9]+\n"
        "Aborting process!\nStacktrace: Not available");
}

TEST_F(TimerDeathTest, AnExceptionOutOfACallbackEndsTheProcess) {
    EXPECT_DEATH(
        {
            Timer timer;
            timer.add(Clock::now(), [](bool) { throw InvalidArgumentError("spoilt", "f", 1); });
            runOff(timer);
        },
        "Invalid Argument Error: spoilt\\(f:1\\)");
}

}  // namespace
}  // namespace Hox::CppUtil
