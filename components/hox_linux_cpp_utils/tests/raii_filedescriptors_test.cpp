#include "hox/linutils/raii_filedescriptors.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "hox/cpputil/error/file_system_error.h"
#include "hox/linutils/error/file_descriptor_error.h"

namespace Hox::LinuxCppUtil {
namespace {

using testing::MatchesRegex;
using testing::StartsWith;

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

std::string openError(const std::string& path, int flags) {
    try {
        openFileDescriptor(path, flags);
    } catch (const CppUtil::FileSystemError& error) {
        return error.what();
    }
    return "no error";
}

TEST(FileDescriptors, IsAnOwningPointer) {
    EXPECT_TRUE((std::is_same_v<decltype(openFileDescriptor("", 0)),
                                std::unique_ptr<int, std::function<void(int*)>>>));
}

TEST(FileDescriptors, OpensAFileAndClosesItAtTheEnd) {
    int number = -1;
    {
        const auto fd = openFileDescriptor("/proc/self/comm", O_RDONLY | O_CLOEXEC);
        number = fileDescriptorNumber(fd);
        EXPECT_EQ(number, *fd);
        EXPECT_GT(number, 0);
        EXPECT_TRUE(isOpen(number));
        std::array<char, 8> buffer{};
        EXPECT_GT(::read(number, buffer.data(), buffer.size()), 0);
    }
    EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptors, PassesTheFlagsOn) {
    const auto fd = openFileDescriptor("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(::fcntl(fileDescriptorNumber(fd), F_GETFL) & O_ACCMODE, O_WRONLY);
    EXPECT_EQ(::fcntl(fileDescriptorNumber(fd), F_GETFD), FD_CLOEXEC);
}

TEST(FileDescriptors, ClosesOnceAfterAMove) {
    int number = -1;
    {
        auto fd = openFileDescriptor("/dev/null", O_RDONLY | O_CLOEXEC);
        number = *fd;
        const auto other = std::move(fd);
        EXPECT_FALSE(fd);  // NOLINT(bugprone-use-after-move): this is what is tested
        EXPECT_TRUE(isOpen(number));
        EXPECT_EQ(fileDescriptorNumber(other), number);
    }
    EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptors, ThrowsForAPathThatDoesNotExist) {
    EXPECT_THAT(openError("/nonexistent/file", O_RDONLY),
                MatchesRegex("IOErrorr: Generic filesystem Error: Could not open file: "
                             "\"/nonexistent/file\" with flags: 0\\(.*:[0-9]+\\)"));
}

TEST(FileDescriptors, NamesTheFlagsInDecimal) {
    EXPECT_THAT(openError("", O_RDWR | O_CLOEXEC),
                StartsWith("IOErrorr: Generic filesystem Error: Could not open file: "
                           "\"\" with flags: " +
                           std::to_string(O_RDWR | O_CLOEXEC) + "("));
}

TEST(FileDescriptors, AreTakenOverFromTheSystem) {
    const int number = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        const auto owned = ownFileDescriptor(number);
        EXPECT_EQ(fileDescriptorNumber(owned), number);
        EXPECT_TRUE(isOpen(number));
    }
    EXPECT_FALSE(isOpen(number));
    EXPECT_FALSE(ownFileDescriptor(-1));
}

TEST(FileDescriptors, RefusesTheNumberOfNoDescriptor) {
    const OwnedFileDescriptor none;
    try {
        fileDescriptorNumber(none);
        FAIL() << "a number came out of nothing";
    } catch (const FileDescriptorError& error) {
        EXPECT_THAT(error.what(),
                    StartsWith("File descriptor Error: No valid filedescriptor contained("));
    }
}

/// Needs a separate process because it closes the standard input.
TEST(FileDescriptorsDeathTest, DescriptorZeroCountsAsFailureAndStaysOpen) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            ::close(STDIN_FILENO);
            const auto text = openError("/dev/null", O_RDONLY);
            std::fprintf(stderr, "%s\nzero is %s\n", text.c_str(),
                         isOpen(STDIN_FILENO) ? "open" : "closed");
            std::_Exit(0);
        },
        testing::ExitedWithCode(0),
        "Could not open file: \"/dev/null\" with flags: 0\\(.*\nzero is open");
}

}  // namespace
}  // namespace Hox::LinuxCppUtil
