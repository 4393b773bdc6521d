#include "logger_name.h"

#include <gtest/gtest.h>

namespace Hox::Ctl {

namespace {

TEST(LoggerName, IsTheClassWithoutFileNamespaceAndArguments) {
    EXPECT_EQ(shortLoggerName("conf_obstree_handler.h::Hox::Conf::ConfObstreeHandler"),
              "ConfObstreeHandler");
    EXPECT_EQ(shortLoggerName("a.h::Hox::Handler<Hox::One, Hox::Two<Hox::Three> >"), "Handler");
    EXPECT_EQ(shortLoggerName("a.cpp::Hox::Log::Log(int, char**)"), "Log");
    EXPECT_EQ(shortLoggerName("StateMonObsHelper"), "StateMonObsHelper");
    EXPECT_EQ(shortLoggerName(""), "(default)");
    EXPECT_EQ(shortLoggerName("a>b"), "a>b");
}

}  // namespace

}  // namespace Hox::Ctl
