#include "interrupt.h"

#include <gtest/gtest.h>

#include <thread>

namespace Hox::Ctl {

namespace {

TEST(Interrupt, CallsBackOnce) {
    Interrupt interrupt;
    int calls = 0;
    const auto handle = interrupt.onRequest([&calls] { ++calls; });
    EXPECT_FALSE(interrupt.isRequested());
    interrupt.request();
    interrupt.request();
    EXPECT_TRUE(interrupt.isRequested());
    EXPECT_EQ(calls, 1);
}

TEST(Interrupt, CallsBackAtOnceIfItIsLate) {
    Interrupt interrupt;
    interrupt.request();
    int calls = 0;
    const auto handle = interrupt.onRequest([&calls] { ++calls; });
    EXPECT_EQ(calls, 1);
}

TEST(Interrupt, DoesNotCallAfterTheHandleIsDropped) {
    Interrupt interrupt;
    int calls = 0;
    interrupt.onRequest([&calls] { ++calls; }).reset();
    interrupt.request();
    EXPECT_EQ(calls, 0);
}

TEST(Interrupt, EndsAWait) {
    Interrupt interrupt;
    EXPECT_FALSE(interrupt.waitFor(std::chrono::milliseconds(1)));
    std::thread other([&interrupt] { interrupt.request(); });
    EXPECT_TRUE(interrupt.waitFor(std::chrono::minutes(1)));
    other.join();
}

}  // namespace

}  // namespace Hox::Ctl
