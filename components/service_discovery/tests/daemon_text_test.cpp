#include "avahi/wrappers/daemon_text.h"

#include <gtest/gtest.h>

#include <string>

namespace Hox::Service::Discovery::Avahi {
namespace {

TEST(DaemonText, IsUtf8WithoutAZeroByte) {
    EXPECT_TRUE(isDaemonText(""));
    EXPECT_TRUE(isDaemonText("a b.c"));
    EXPECT_TRUE(isDaemonText("K\xC3\xB6ln"));
    EXPECT_FALSE(isDaemonText("K\xF6ln"));
    EXPECT_FALSE(isDaemonText("\xED\xA0\x80"));
    EXPECT_FALSE(isDaemonText(std::string("a\0b", 3)));
}

TEST(DaemonText, IsNullWhereItIsEmpty) {
    EXPECT_EQ(orNull(""), nullptr);
    const std::string text = "local";
    EXPECT_EQ(orNull(text), text.c_str());
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
