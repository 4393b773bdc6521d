#include "host_lookup.h"

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "hox/testing/temp_dir.h"
#include "hox/testing/wait_until.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using ::testing::AnyOf;

/// The shell's commands in the place of "getent", for all processes that are started from here on.
class FakeGetent {
public:
    explicit FakeGetent(const std::string& commands) {
        const auto program = m_folder.path() / "getent";
        std::ofstream(program) << "#!/bin/sh\n" << commands << "\n";
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        setenv("PATH", (m_folder.path().string() + ":" + m_path).c_str(), 1);
    }
    ~FakeGetent() { setenv("PATH", m_path.c_str(), 1); }
    FakeGetent(const FakeGetent&) = delete;
    FakeGetent& operator=(const FakeGetent&) = delete;

    std::filesystem::path folder() const { return m_folder.path(); }

private:
    const std::string m_path = getenv("PATH");
    const Testing::TempDir m_folder;
};

class HostLookupTest : public ::testing::Test {
protected:
    void start(const std::string& host) {
        m_lookup = std::make_unique<HostLookup>(host, [this] { ++m_failures; });
    }

    std::atomic<int> m_failures = 0;
    std::unique_ptr<HostLookup> m_lookup;
};

TEST_F(HostLookupTest, FindsAHost) {
    start("localhost");
    m_lookup->waitForFirstAttempt(std::chrono::seconds(30));
    ASSERT_TRUE(m_lookup->address());
    EXPECT_THAT(*m_lookup->address(), AnyOf("127.0.0.1", "::1"));
    EXPECT_EQ(m_failures, 0);
}

TEST_F(HostLookupTest, TellsOnceThatThereIsNoSuchHost) {
    start("no-such-host.invalid");
    m_lookup->waitForFirstAttempt(std::chrono::seconds(60));
    EXPECT_FALSE(m_lookup->address());
    EXPECT_EQ(m_failures, 1);
}

TEST_F(HostLookupTest, TakesTheFirstAddress) {
    const FakeGetent getent(
        R"([ "$*" = "ahosts -- manager" ] && printf '10.0.0.7 STREAM manager\n10.0.0.8 STREAM\n')");
    start("manager");
    m_lookup->waitForFirstAttempt(std::chrono::seconds(30));
    EXPECT_EQ(m_lookup->address(), "10.0.0.7");
}

TEST_F(HostLookupTest, DoesNotWaitForAResolverThatIsSlow) {
    const FakeGetent getent(
        R"(echo $$ > "$(dirname "$0")/pid.new"; mv "$(dirname "$0")/pid.new" "$(dirname "$0")/pid"; exec sleep 1000)");
    const auto begin = std::chrono::steady_clock::now();
    start("manager");
    m_lookup->waitForFirstAttempt(std::chrono::milliseconds(50));
    EXPECT_FALSE(m_lookup->address());
    ASSERT_TRUE(
        Testing::waitUntil([&] { return std::filesystem::exists(getent.folder() / "pid"); }));
    m_lookup.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    int pid = 0;
    std::ifstream(getent.folder() / "pid") >> pid;
    ASSERT_GT(pid, 0);
    EXPECT_NE(kill(pid, 0), 0) << "nothing is left of the look-up";
    EXPECT_EQ(m_failures, 0);
}

TEST_F(HostLookupTest, EndsAtAnyMoment) {
    for (int round = 0; round < 100; ++round) {
        start("localhost");
    }
    m_lookup.reset();
    EXPECT_EQ(m_failures, 0);
}

TEST_F(HostLookupTest, FailsWhereTheSystemHasNoSuchProgram) {
    const std::string path = getenv("PATH");
    setenv("PATH", "/nowhere", 1);
    start("localhost");
    m_lookup->waitForFirstAttempt(std::chrono::seconds(30));
    setenv("PATH", path.c_str(), 1);
    EXPECT_FALSE(m_lookup->address());
    EXPECT_EQ(m_failures, 1);
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
