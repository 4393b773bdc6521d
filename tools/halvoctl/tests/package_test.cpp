#include "package.h"

#include <gtest/gtest.h>

#include "ctl_error.h"
#include "make_package.h"

namespace Hox::Ctl {

namespace {

TEST(Package, HasIdentityKeysAndSlices) {
    const Package package(makePackage({{"swvariant", "output:COFDM\n"},
                                       {"./partno", "100003\n"},
                                       {"sys/conf/mb/0/tuner/__csid/data", "id"},
                                       {"./sys/conf/mb/0/tuner/in/3/data", "x"},
                                       {"sys/conf/mb/0/tuner/in/data/data", "x"},
                                       {"sys/conf/mb/1/net/a/data", "x"},
                                       {"sys/conf/mb/1/net/a/data~", "x"},
                                       {"sys/conf/a/data", "x"}}));
    EXPECT_EQ(package.keyCount(), 3U);
    EXPECT_EQ(package.slices(), (std::set<std::string>{"mb/0/tuner", "mb/1/net"}));
}

TEST(Package, HasTheSameValuesWhateverItsStateIds) {
    const Package package(makePackage({{"partno", "1"},
                                       {"sys/conf/mb/0/tuner/__csid/data", "one"},
                                       {"sys/conf/mb/0/tuner/a/data", "x"}}));
    EXPECT_TRUE(package.hasSameValues(Package(makePackage(
        {{"./sys/conf/mb/0/tuner/a/data", "x"}, {"sys/conf/mb/0/tuner/__csid/data", "two"}}))));
    EXPECT_FALSE(
        package.hasSameValues(Package(makePackage({{"sys/conf/mb/0/tuner/a/data", "y"}}))));
    EXPECT_FALSE(package.hasSameValues(Package(makePackage({}))));
}

TEST(Package, HasEntriesFilesAndValues) {
    const Package package(makePackage({{"./a/", ""}, {"./sys//conf/x/data", "1"}, {"b", "2"}}));
    EXPECT_EQ(package.entries().size(), 3U);
    EXPECT_EQ(package.entries()[0].kind, PackageEntry::Kind::Folder);
    EXPECT_EQ(package.entries()[1].name, "./sys//conf/x/data");
    EXPECT_EQ(*package.file("b"), "2");
    EXPECT_EQ(package.file("a"), nullptr);
    EXPECT_EQ(package.values(), (std::map<std::string, std::string>{{"/sys/conf/x", "1"}}));
}

TEST(Package, KnowsSlicesAndStateIds) {
    EXPECT_EQ(sliceOf("/sys/conf/mb/0/tuner/in/3"), "mb/0/tuner");
    for (const auto* const key :
         {"/sys/conf/mb/0/tuner", "/sys/conf/a", "/sys/other/a/b/c/d", ""}) {
        EXPECT_EQ(sliceOf(key), "") << key;
        EXPECT_FALSE(isStateId(key));
    }
    EXPECT_TRUE(isStateId("/sys/conf/mb/0/tuner/__csid"));
    EXPECT_FALSE(isStateId("/sys/conf/mb/0/tuner/a/__csid"));
}

TEST(Package, MayBeWithoutKeys) {
    EXPECT_EQ(Package(makePackage({})).keyCount(), 0U);
}

TEST(Package, MakesFolders) {
    const Package package(makePackage({{"a/b/x", "1"}, {"./c/", ""}, {"d", "1"}, {"d/", ""}}));
    EXPECT_EQ(package.folders(), (std::set<std::string>{"a", "a/b", "c"}));
}

TEST(Package, AnotherFileCannotBeRead) {
    EXPECT_THROW(Package("no package"), CtlError);
    const auto whole = makePackage({{"sys/conf/mb/0/tuner/a/data", std::string(5000, 'x')}});
    EXPECT_THROW(Package(whole.substr(0, whole.size() / 2)), CtlError);
    EXPECT_THROW(Package(whole + "more"), CtlError);
    EXPECT_THROW(Package(""), CtlError);
}

/// Such a list names local files, whose content would be shown.
TEST(Package, IsNoListOfFiles) {
    EXPECT_THROW(Package("#mtree\n./a type=file contents=/etc/passwd\n"), CtlError);
}

TEST(Package, StartsNoProgram) {
    EXPECT_THROW(Package("begin 644 -\n" + std::string("#0V%T\n`\nend\n")), CtlError);
    EXPECT_THROW(Package(std::string("LRZI\0\6", 6) + std::string(100, '\0')), CtlError);
    const std::string lzop("\x89LZO\0\r\n\x1a\n", 9);
    EXPECT_THROW(Package(lzop + std::string(100, '\0')), CtlError);
}

TEST(Package, OneThatUnpacksToTooMuchIsNotRead) {
    EXPECT_THROW(Package(makePackage({{"a", std::string((std::size_t{64} << 20) + 1, 'x')}})),
                 CtlError);
}

}  // namespace

}  // namespace Hox::Ctl
