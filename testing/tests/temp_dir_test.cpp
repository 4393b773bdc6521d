#include "hox/testing/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace Hox::Testing {
namespace {

using ::testing::EndsWith;

TEST(TempDir, IsEmptyAndWritableAndGoesWithAllThatIsInIt) {
    std::filesystem::path path;
    {
        const TempDir folder;
        path = folder.path();
        EXPECT_TRUE(path.is_absolute());
        EXPECT_TRUE(std::filesystem::is_empty(path));
        std::filesystem::create_directories(folder / "sub" / "deeper");
        std::ofstream(folder / "sub" / "file") << "text";
        EXPECT_TRUE(std::filesystem::exists(path / "sub" / "file"));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TempDir, EachIsAnother) {
    const TempDir first;
    const TempDir second;
    EXPECT_NE(first.path(), second.path());
}

TEST(TempDir, MayBeRemovedBeforehand) {
    const TempDir folder;
    std::filesystem::remove(folder.path());
    EXPECT_FALSE(std::filesystem::exists(folder.path()));
}

class TempDirDeathTest : public ::testing::Test {
protected:
    TempDirDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    const TempDir m_anywhere;
    const TempDir m_inMemory{"/dev/shm"};
};

TEST_F(TempDirDeathTest, AChildHasItsFoldersBelowOneOfTheProgram) {
    const auto* programsFolder = std::getenv("HALVO_TEST_CHILD_FOLDER");
    ASSERT_NE(programsFolder, nullptr);
    EXPECT_EQ(m_inMemory.path().parent_path(), "/dev/shm");
    const auto isBelow = [programsFolder](const TempDir& folder) {
        return ::testing::Value(programsFolder,
                                EndsWith(":" + folder.path().parent_path().string()));
    };
    EXPECT_FALSE(isBelow(m_anywhere));
    EXPECT_EXIT(std::_Exit(isBelow(m_anywhere) && isBelow(m_inMemory) ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
}

/// Runs the test above in a separate program.
TEST(TempDir, NothingIsLeftOfThoseOfChildrenThatEndAbruptly) {
    const TempDir folder;
    const auto program = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string command = "env -u HALVO_TEST_CHILD_FOLDER TMPDIR=" + folder.path().string() +
                                " " + program + " --gtest_filter='TempDirDeathTest.*' >&2";
    EXPECT_EQ(std::system(command.c_str()), 0);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

}  // namespace
}  // namespace Hox::Testing
