#include "hox/testing/arguments.h"

#include <gtest/gtest.h>

namespace Hox::Testing {
namespace {

TEST(Arguments, AreTheProgramTheTextsAndANullPointer) {
    Arguments line({"--port", "5000", ""});
    ASSERT_EQ(line.argc(), 4);
    EXPECT_STREQ(line.argv()[0], "program");
    EXPECT_STREQ(line.argv()[1], "--port");
    EXPECT_STREQ(line.argv()[2], "5000");
    EXPECT_STREQ(line.argv()[3], "");
    EXPECT_EQ(line.argv()[4], nullptr);
}

TEST(Arguments, MayBeTheProgramAlone) {
    Arguments line({});
    ASSERT_EQ(line.argc(), 1);
    EXPECT_STREQ(line.argv()[0], "program");
    EXPECT_EQ(line.argv()[1], nullptr);
}

}  // namespace
}  // namespace Hox::Testing
