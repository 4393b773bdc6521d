#include "clock_text.h"

#include <gtest/gtest.h>

#include <ctime>

namespace Hox::Ctl {

namespace {

using std::chrono::system_clock;

/// 18:39:23 of a day without a change of clocks, in the time zone of the machine.
system_clock::time_point evening() {
    std::tm time{};
    time.tm_year = 126;
    time.tm_mon = 10;
    time.tm_mday = 21;
    time.tm_hour = 18;
    time.tm_min = 39;
    time.tm_sec = 23;
    time.tm_isdst = -1;
    return system_clock::from_time_t(std::mktime(&time));
}

TEST(ClockText, TodayHasNoDate) {
    EXPECT_EQ(sinceText(evening(), evening() + std::chrono::seconds(59)), "18:39:23 (59 s)");
    EXPECT_EQ(sinceText(evening(), evening() + std::chrono::minutes(4)), "18:39:23 (4 min)");
    EXPECT_EQ(sinceText(evening(), evening() + std::chrono::hours(5)), "18:39:23 (5 h)");
    EXPECT_EQ(sinceText(evening(), evening() - std::chrono::seconds(5)), "18:39:23 (0 s)");
}

TEST(ClockText, ATimeAloneIsTheSame) {
    EXPECT_EQ(timeText(evening(), evening() - std::chrono::minutes(5)), "18:39:23");
    EXPECT_EQ(timeText(evening(), evening() - std::chrono::hours(50)), "2026-11-21 18:39:23");
}

TEST(ClockText, AnotherDayHasItsDate) {
    EXPECT_EQ(sinceText(evening(), evening() + std::chrono::hours(50)),
              "2026-11-21 18:39:23 (2 d)");
}

}  // namespace

}  // namespace Hox::Ctl
