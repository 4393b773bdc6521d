#include "pack_files.h"

#include <gtest/gtest.h>

#include "package_entry.h"

namespace Hox::Ctl {

namespace {

TEST(PackFiles, AreReadAsTheyWere) {
    const auto archive = packFiles({{"a/b", "1"}, {"\xc3\xa4", std::string(300000, 'x')}});
    const auto entries = readPackageEntries(archive);
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].path, "a/b");
    EXPECT_EQ(entries[0].content, "1");
    EXPECT_EQ(entries[1].path, "\xc3\xa4");
    EXPECT_EQ(entries[1].content.size(), 300000U);
}

}  // namespace

}  // namespace Hox::Ctl
