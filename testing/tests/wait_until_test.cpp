#include "hox/testing/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace Hox::Testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(WaitUntil, AsksOnceWithNoTimeLeft) {
    int asked = 0;
    EXPECT_TRUE(waitUntil([&] { return ++asked == 1; }, milliseconds(0)));
    EXPECT_EQ(asked, 1);
}

TEST(WaitUntil, GivesUpAfterTheDeadline) {
    const auto start = steady_clock::now();
    EXPECT_FALSE(waitUntil([] { return false; }, milliseconds(20)));
    EXPECT_GE(steady_clock::now() - start, milliseconds(20));
}

TEST(WaitUntil, SeesWhatAnotherThreadDoes) {
    std::atomic<bool> done{false};
    std::thread other([&] { done = true; });
    EXPECT_TRUE(waitUntil([&] { return done.load(); }));
    other.join();
}

}  // namespace
}  // namespace Hox::Testing
