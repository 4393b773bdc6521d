#include "hox/testing/private_mounts.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "hox/testing/skip_outside_ci.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Testing {
namespace {

enum Answer : int { ok, notAllowed, notEmpty, notWritable };

Answer writeInPrivate(const std::filesystem::path& folder) {
    if (!mountPrivateFolders({folder})) {
        return notAllowed;
    }
    if (!std::filesystem::is_empty(folder)) {
        return notEmpty;
    }
    return std::ofstream(folder / "inner") << "text" << std::flush ? ok : notWritable;
}

TEST(PrivateMounts, HideTheFolderFromTheMachineAndBack) {
    const TempDir folder;
    std::ofstream(folder / "outer") << "text";
    const auto child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(writeInPrivate(folder.path()));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == notAllowed) {
        skipOutsideCi("this machine allows no private mounts");
        return;
    }
    EXPECT_EQ(WEXITSTATUS(status), ok);
    EXPECT_TRUE(std::filesystem::exists(folder / "outer"));
    EXPECT_FALSE(std::filesystem::exists(folder / "inner"));
}

}  // namespace
}  // namespace Hox::Testing
