#include "hox/testing/temp_dir.h"

#include <gtest/gtest.h>

#include <fstream>

namespace Hox::Testing {
namespace {

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

}  // namespace
}  // namespace Hox::Testing
