#include "directory_walk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "archive_kit.h"

namespace Hox::Archive {
namespace {

TEST(DirectoryWalk, TheSizeOfWhatIsNoFolderIsNothing) {
    const Testing::TempDir room;
    writeFile(room / "file", "content");
    EXPECT_EQ(directorySize(room / "file"), 0U);
    EXPECT_EQ(directorySize(room / "missing"), 0U);
    EXPECT_EQ(directorySize(room.path()), 7U + 32U);
}

TEST(DirectoryWalk, HandsTheTextOfTheWalkToTheWriter) {
    const auto writer = newWriter();
    EXPECT_LT(writeDirectory(writer.get(), "/nonexistent/folder", true), ARCHIVE_OK);
    EXPECT_THAT(errorText(writer.get()), testing::HasSubstr("/nonexistent/folder"));
}

TEST(DirectoryWalkDeathTest, NeedsAWriterAndAnEntry) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto writer = newWriter();
    const auto entry = newEntry();
    EXPECT_DEATH(writeDirectory(nullptr, "/", true), "Assertion failed: \\[ar != nullptr\\]");
    EXPECT_DEATH(writeEntry(nullptr, entry.get(), "/", true),
                 "Assertion failed: \\[ar != nullptr\\]");
    EXPECT_DEATH(writeEntry(writer.get(), nullptr, "/", true),
                 "Assertion failed: \\[entry != nullptr\\]");
}

}  // namespace
}  // namespace Hox::Archive
