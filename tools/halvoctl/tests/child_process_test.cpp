#include "child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Ctl {

namespace {

TEST(ChildProcess, ReturnsTheStatus) {
    EXPECT_EQ(runQuietly({"true"}), 0);
    EXPECT_EQ(runQuietly({"sh", "-c", "exit 3"}), 3);
    EXPECT_EQ(runQuietly({"sh", "-c", "kill -9 $$"}), 137);
    EXPECT_EQ(runQuietly({"/nonexistent"}), 127);
}

TEST(ChildProcess, ReturnsTheOutput) {
    EXPECT_EQ(outputOf({"echo", "text"}, std::chrono::seconds(20)), "text\n");
    EXPECT_EQ(outputOf({"head", "-c", "300000", "/dev/zero"}, std::chrono::seconds(20)).size(),
              300000U);
}

TEST(ChildProcess, AFailedOutputIsAnError) {
    const auto failure = [](const std::vector<std::string>& words) {
        try {
            outputOf(words, std::chrono::milliseconds(200));
        } catch (const CtlError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(failure({"halvoctl-no-such-program"}),
              "halvoctl-no-such-program: No such file or directory");
    EXPECT_EQ(failure({"false"}), "false: has failed");
    EXPECT_EQ(failure({"sleep", "100"}), "sleep: takes too long");
}

TEST(ChildProcess, ADetachedOneHoldsTheLockUntilItsEnd) {
    const Testing::TempDir folder;
    const std::string path = folder / "file";
    const std::string end = folder / "end";
    const auto open = [&path] {
        return LinuxCppUtil::ownFileDescriptor(
            ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    };
    auto file = open();
    ASSERT_EQ(::flock(*file, LOCK_EX), 0);
    // It ends when the test has seen the lock.
    startDetached({"sh", "-c", "until test -e " + end + "; do sleep 0.01; done"}, *file);
    file.reset();
    const auto other = open();
    EXPECT_NE(::flock(*other, LOCK_SH | LOCK_NB), 0);
    EXPECT_EQ(runQuietly({"touch", end}), 0);
    EXPECT_EQ(::flock(*other, LOCK_SH), 0);
    EXPECT_THROW(startDetached({"/nonexistent"}, *other), CtlError);
}

}  // namespace

}  // namespace Hox::Ctl
