#include "package.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

using Files = std::vector<std::pair<std::string, std::string>>;

/// A compressed tar archive of these files.
std::string packed(const Files& files) {
    std::string bytes(std::size_t{1} << 20, '\0');
    std::size_t used = 0;
    const std::unique_ptr<archive, int (*)(archive*)> writer(archive_write_new(),
                                                             archive_write_free);
    archive_write_add_filter_gzip(writer.get());
    archive_write_set_format_pax_restricted(writer.get());
    archive_write_open_memory(writer.get(), bytes.data(), bytes.size(), &used);
    for (const auto& [name, content] : files) {
        const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(),
                                                                             archive_entry_free);
        archive_entry_set_pathname(entry.get(), name.c_str());
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0640);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
        archive_write_header(writer.get(), entry.get());
        archive_write_data(writer.get(), content.data(), content.size());
    }
    archive_write_close(writer.get());
    bytes.resize(used);
    return bytes;
}

TEST(Package, HasIdentityKeysAndSlices) {
    const Package package(packed({{"swvariant", "output:COFDM\n"},
                                  {"./partno", "100003\n"},
                                  {"sys/conf/mb/0/tuner/__csid/data", "id"},
                                  {"./sys/conf/mb/0/tuner/in/3/data", "x"},
                                  {"sys/conf/mb/0/tuner/in/data/data", "x"},
                                  {"sys/conf/mb/1/net/a/data", "x"},
                                  {"sys/conf/mb/1/net/a/data~", "x"},
                                  {"sys/conf/a/data", "x"}}));
    EXPECT_EQ(package.identity(), "COFDM part 100003");
    EXPECT_EQ(package.keyCount(), 3U);
    EXPECT_EQ(package.slices(), (std::set<std::string>{"mb/0/tuner", "mb/1/net"}));
}

TEST(Package, HasTheSameValuesWhateverItsStateIds) {
    const Package package(packed({{"partno", "1"},
                                  {"sys/conf/mb/0/tuner/__csid/data", "one"},
                                  {"sys/conf/mb/0/tuner/a/data", "x"}}));
    EXPECT_TRUE(package.hasSameValues(Package(packed(
        {{"./sys/conf/mb/0/tuner/a/data", "x"}, {"sys/conf/mb/0/tuner/__csid/data", "two"}}))));
    EXPECT_FALSE(package.hasSameValues(Package(packed({{"sys/conf/mb/0/tuner/a/data", "y"}}))));
    EXPECT_FALSE(package.hasSameValues(Package(packed({}))));
}

TEST(Package, WithoutIdentityIsForTheDefaultMachine) {
    EXPECT_EQ(Package(packed({{"a", "b"}})).identity(), "QAM part 0");
    EXPECT_EQ(Package(packed({})).keyCount(), 0U);
    EXPECT_EQ(Package("").keyCount(), 0U);
}

TEST(Package, AnotherFileCannotBeRead) {
    EXPECT_THROW(Package("no package"), CtlError);
    const auto whole = packed({{"sys/conf/mb/0/tuner/a/data", std::string(5000, 'x')}});
    EXPECT_THROW(Package(whole.substr(0, whole.size() / 2)), CtlError);
}

TEST(Package, OneThatUnpacksToTooMuchIsNotRead) {
    EXPECT_THROW(Package(packed({{"a", std::string((std::size_t{64} << 20) + 1, 'x')}})), CtlError);
}

}  // namespace

}  // namespace Hox::Ctl
