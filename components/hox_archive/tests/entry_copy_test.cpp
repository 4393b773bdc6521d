#include "entry_copy.h"

#include <gtest/gtest.h>

#include "archive_kit.h"

namespace Hox::Archive {
namespace {

TEST(EntryCopy, ABlockThatCannotBeWrittenIsCodeOne) {
    const auto bytes =
        foreignArchive(archive_write_set_format_ustar, {{"file", AE_IFREG, "content"}});
    const auto reader = newReader();
    ASSERT_EQ(archive_read_open_memory(reader.get(), bytes.data(), bytes.size()), ARCHIVE_OK);
    ::archive_entry* entry = nullptr;
    ASSERT_EQ(archive_read_next_header(reader.get(), &entry), ARCHIVE_OK);
    const Testing::TempDir room;
    const auto shorter = newEntry();
    archive_entry_set_pathname(shorter.get(), (room / "file").c_str());
    archive_entry_set_filetype(shorter.get(), AE_IFREG);
    archive_entry_set_size(shorter.get(), 3);
    const auto writer = newDiskWriter();
    ASSERT_EQ(archive_write_header(writer.get(), shorter.get()), ARCHIVE_OK);
    EXPECT_EQ(copyData(reader.get(), writer.get()), 1);
}

TEST(EntryCopyDeathTest, NeedsBothSides) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto reader = newReader();
    const auto writer = newDiskWriter();
    EXPECT_DEATH(copyEntries(nullptr, writer.get(), "/"), "Assertion failed: \\[in != nullptr\\]");
    EXPECT_DEATH(copyEntries(reader.get(), nullptr, "/"), "Assertion failed: \\[out != nullptr\\]");
    EXPECT_DEATH(copyData(nullptr, writer.get()), "Assertion failed: \\[ar != nullptr\\]");
    EXPECT_DEATH(copyData(reader.get(), nullptr), "Assertion failed: \\[aw != nullptr\\]");
}

}  // namespace
}  // namespace Hox::Archive
