#include "hox/testing/notify_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-daemon.h>

#include <cstdlib>

namespace Hox::Testing {
namespace {

using ::testing::ElementsAre;

TEST(NotifySocket, ReceivesWhatTheProcessTellsItsManager) {
    NotifySocket socket;
    EXPECT_GT(sd_notify(0, "READY=1"), 0);
    EXPECT_GT(sd_notify(0, "STOPPING=1"), 0);
    EXPECT_TRUE(socket.waitFor("STOPPING=1"));
    EXPECT_THAT(socket.messages(), ElementsAre("READY=1", "STOPPING=1"));
}

TEST(NotifySocket, GivesUpOnAMessageThatDoesNotCome) {
    NotifySocket socket;
    EXPECT_GT(sd_notify(0, "READY=1"), 0);
    EXPECT_FALSE(socket.waitFor("READY", std::chrono::milliseconds(10)));
}

TEST(NotifySocket, PutsTheEnvironmentBack) {
    unsetenv("NOTIFY_SOCKET");
    {
        const NotifySocket outer;
        {
            const NotifySocket inner;
            EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), inner.address());
        }
        EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), outer.address());
    }
    EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr);
}

}  // namespace
}  // namespace Hox::Testing
