#include "avahi/daemon_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>

namespace Hox::Service::Discovery::Avahi {
namespace {

using ::testing::HasSubstr;

TEST(DaemonConnection, OpensTheMutexWhileItPolls) {
    FairMutex mutex;
    std::array<int, 2> ends = {};
    ASSERT_EQ(pipe(ends.data()), 0);
    pollfd entry = {ends[0], POLLIN, 0};
    const std::unique_lock<FairMutex> lock(mutex);
    // Can only write while the mutex is open, and ends the poll by it.
    std::thread writer([&] {
        const std::lock_guard<FairMutex> inside(mutex);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
    });
    EXPECT_EQ(DaemonConnection::pollOpen(&entry, 1, -1, &mutex), 1);
    EXPECT_EQ(entry.revents, POLLIN);
    std::thread other([&] { EXPECT_FALSE(mutex.tryLockUntil(std::chrono::steady_clock::now())); });
    writer.join();
    other.join();
    close(ends[0]);
    close(ends[1]);
}

TEST(DaemonConnection, ReturnsWhatPollReturns) {
    FairMutex mutex;
    const std::lock_guard<FairMutex> lock(mutex);
    pollfd entry = {-1, POLLIN, 0};
    EXPECT_EQ(DaemonConnection::pollOpen(&entry, 1, 0, &mutex), 0);
    // More entries than a process may have descriptors.
    rlimit former = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    rlimit none = former;
    none.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    errno = 0;
    const auto result = DaemonConnection::pollOpen(&entry, 1, 0, &mutex);
    const auto error = errno;
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINVAL);
}

class DaemonConnectionDeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(DaemonConnectionDeathTest, AssertsTheArgumentsOfPoll) {
    FairMutex mutex;
    pollfd entry = {-1, 0, 0};
    EXPECT_DEATH(DaemonConnection::pollOpen(nullptr, 0, 0, &mutex),
                 HasSubstr("Assertion failed: [ufds != nullptr]"));
    EXPECT_DEATH(DaemonConnection::pollOpen(&entry, 0, 0, nullptr),
                 HasSubstr("Assertion failed: [userdata != nullptr]"));
}

TEST_F(DaemonConnectionDeathTest, AssertsTheArgumentsOfItsCallback) {
    int nothing = 0;
    EXPECT_DEATH(DaemonConnection::clientCallback(nullptr, AVAHI_CLIENT_S_RUNNING, &nothing),
                 HasSubstr("Assertion failed: [client != nullptr]"));
    EXPECT_DEATH(DaemonConnection::clientCallback(reinterpret_cast<AvahiClient*>(&nothing),
                                                  AVAHI_CLIENT_S_RUNNING, nullptr),
                 HasSubstr("Assertion failed: [userdata != nullptr]"));
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
