#include "duration.h"

#include <gtest/gtest.h>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

using std::chrono::milliseconds;

TEST(Duration, HasAUnitOrIsInSeconds) {
    EXPECT_EQ(parseDuration("200ms"), milliseconds(200));
    EXPECT_EQ(parseDuration("10s"), milliseconds(10000));
    EXPECT_EQ(parseDuration("10"), milliseconds(10000));
    EXPECT_EQ(parseDuration("5m"), milliseconds(300000));
    EXPECT_EQ(parseDuration("2h"), milliseconds(7200000));
    EXPECT_EQ(parseDuration("0"), milliseconds(0));
}

TEST(Duration, OtherTextsAreRefused) {
    for (const auto* text :
         {"", "s", "-1s", "1.5s", "1 s", "1d", "ten", "99999999999999s", "4000000h"}) {
        EXPECT_THROW(parseDuration(text), CtlError) << text;
    }
}

TEST(Duration, AnAgeIsInItsLargestUnit) {
    EXPECT_EQ(ageText(milliseconds(-5)), "0s");
    EXPECT_EQ(ageText(milliseconds(59999)), "59s");
    EXPECT_EQ(ageText(milliseconds(60000)), "1m");
    EXPECT_EQ(ageText(milliseconds(7200000)), "2h");
    EXPECT_EQ(ageText(std::chrono::hours(49)), "2d");
}

TEST(Duration, ATimeLimitIsNotOver) {
    EXPECT_EQ(parseTimeLimit("1ms"), std::chrono::milliseconds(1));
    EXPECT_THROW(parseTimeLimit("0s"), CtlError);
}

}  // namespace

}  // namespace Hox::Ctl
