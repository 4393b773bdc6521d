#include "hox/observer_tree/restricted_data_tree.h"

#include <map>
#include <random>

#include "hox/observer_tree/path_error.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using TestKit::linesOf;
using TestKit::randomPath;
using TestKit::textOf;
using TestKit::thrownBy;
using TestKit::value;

std::string accessError(const std::function<void()>& call) {
    return thrownBy<AccessViolationError>(call, "restricted_data_tree.h");
}

std::string refusal(const std::string& key, const std::string& pattern) {
    return "AccessViolationError: Not allowed to access \"" + key + "\" with key pattern \"" +
           pattern + "\" in effect";
}

TEST(RestrictedDataTree, AllowsTheRootOnlyAtTheStart) {
    const DataTree tree;
    EXPECT_NO_THROW(tree.checkAccess("/"));
    EXPECT_EQ(accessError([&] { tree.checkAccess("/a"); }), refusal("/a", ""));
}

TEST(RestrictedDataTree, AllowsTheAddressAndWhatLiesBelow) {
    DataTree tree;
    tree.setKeyPattern("/a/b");
    EXPECT_NO_THROW(tree.checkAccess("/a/b"));
    EXPECT_NO_THROW(tree.checkAccess("/a/b/c/d"));
    EXPECT_EQ(accessError([&] { tree.checkAccess("/a"); }), refusal("/a", "a/b/**"));
    EXPECT_EQ(accessError([&] { tree.checkAccess("/a/bb"); }), refusal("/a/bb", "a/b/**"));
}

TEST(RestrictedDataTree, TakesDottedComponentsForAnyOne) {
    DataTree tree;
    tree.setKeyPattern("/sys/conf/.data.");
    EXPECT_NO_THROW(tree.checkAccess("/sys/conf/x"));
    EXPECT_NO_THROW(tree.checkAccess("/sys/conf/x/y"));
    EXPECT_EQ(accessError([&] { tree.checkAccess("/sys/conf"); }),
              refusal("/sys/conf", "sys/conf/*/**"));
    tree.setKeyPattern("/.persist_upd_hndlr.");
    EXPECT_NO_THROW(tree.checkAccess("/x"));
    EXPECT_EQ(accessError([&] { tree.checkAccess("/"); }), refusal("/", "*/**"));
}

TEST(RestrictedDataTree, ReadsKeysWithAPrefixWhateverItsLimit) {
    DataTree tree;
    tree.setKeyPattern("/a");
    tree.insert_or_assign("/a/b", value("1"));
    tree.setKeyPattern("/elsewhere");
    const DataTree& readOnly = tree;
    std::vector<std::string> keys;
    for (const auto& element : readOnly.withPrefix(std::string("/") + "a/")) {
        keys.push_back(element.first);
    }
    EXPECT_THAT(keys, ElementsAre("/a/b"));
}

TEST(RestrictedDataTree, AllowsEverythingBelowTheRootAddress) {
    DataTree tree;
    tree.setKeyPattern("/");
    EXPECT_NO_THROW(tree.checkAccess("/"));
    EXPECT_NO_THROW(tree.checkAccess("/a/b"));
}

TEST(RestrictedDataTree, DropsTheFormerLimitWithEachNewOne) {
    DataTree tree;
    tree.setKeyPattern("/a");
    tree.setKeyPattern("/b");
    EXPECT_NO_THROW(tree.checkAccess("/b/c"));
    EXPECT_EQ(accessError([&] { tree.checkAccess("/a"); }), refusal("/a", "b/**"));
    tree.setKeyPattern("/b");
    EXPECT_NO_THROW(tree.checkAccess("/b/c"));
}

TEST(RestrictedDataTree, KeepsTheLimitWhenTheNewAddressIsMalformed) {
    DataTree tree;
    EXPECT_THROW(tree.setKeyPattern(""), PathError);
    tree.setKeyPattern("/a");
    EXPECT_THROW(tree.setKeyPattern("/b/*"), PathError);
    EXPECT_NO_THROW(tree.checkAccess("/a"));
    EXPECT_EQ(accessError([&] { tree.checkAccess("/b"); }), refusal("/b", "a/**"));
}

TEST(RestrictedDataTree, RefusesMalformedKeys) {
    DataTree tree;
    tree.setKeyPattern("/a");
    for (const std::string key : {"", "a", "/a/", "/a//b", "/a/*", "/a/.x."}) {
        EXPECT_THROW(tree.checkAccess(key), PathError) << key;
        EXPECT_THROW(tree.insert_or_assign(key, value("1")), PathError) << key;
        EXPECT_THROW(tree.erase(key), PathError) << key;
    }
    EXPECT_TRUE(tree.empty());
    EXPECT_THAT(tree.takeChangeSet(), IsEmpty());
}

/// The text of the exception that the call throws, without its location.
std::string failureOf(const std::function<void()>& call) {
    const auto text = thrownBy<Hox::Error>(call);
    return text.substr(0, text.rfind('('));
}

TEST(RestrictedDataTree, ChecksAsParserAndMatcherDo) {
    std::mt19937 random(20220808);
    const PathManipulation path;
    std::map<std::string, int> seen;
    DataTree tree;
    for (int round = 0; round < 20000; ++round) {
        const auto address = randomPath(random, {"a", "b", "ab", ".x."});
        const auto key = randomPath(random, {"a", "b", "ab", "a", "b", "*", "", ".x."});
        tree.setKeyPattern(address);
        auto limit = path.parsePath(PathType::FunctionTreeAddress, address);
        limit.emplace_back(WildCard::DoubleStar);
        const auto expected = failureOf([&] {
            if (!path.matches(path.parsePath(PathType::Key, key), limit)) {
                throw AccessViolationError("Not allowed to access \"" + key +
                                               "\" with key pattern \"" +
                                               path.componentsToString(limit) + "\" in effect",
                                           __FILE__, __LINE__);
            }
        });
        ASSERT_EQ(failureOf([&] { tree.checkAccess(key); }), expected) << address << " " << key;
        ++seen[expected.substr(0, expected.find(':'))];
    }
    EXPECT_GT(seen["AccessViolationError"], 1000);
    EXPECT_GT(seen["PathError"], 1000);
    EXPECT_GT(seen["nothing thrown"], 1000);
}

TEST(RestrictedDataTree, ChecksEachWayToWriteFirst) {
    DataTree tree;
    tree.setKeyPattern("/b");
    tree.insert_or_assign("/b", value("1"));
    tree.takeChangeSet();
    tree.setKeyPattern("/a");
    const std::string key = "/b";
    const auto held = value("2");
    EXPECT_EQ(accessError([&] { tree.insert_or_assign(key, held); }), refusal("/b", "a/**"));
    EXPECT_EQ(accessError([&] { tree.insert_or_assign(std::string("/b"), value("2")); }),
              refusal("/b", "a/**"));
    EXPECT_EQ(accessError([&] { tree.erase(key); }), refusal("/b", "a/**"));
    EXPECT_EQ(accessError([&] { tree.erase("/absent"); }), refusal("/absent", "a/**"));
    EXPECT_EQ(accessError([&] { tree.erase(tree.find("/b")); }), refusal("/b", "a/**"));
    EXPECT_EQ(
        accessError([&] { tree.insert_or_assign(tree.find("/b"), std::string("/b"), value("2")); }),
        refusal("/b", "a/**"));
    EXPECT_EQ(accessError([&] {
                  tree.insert_or_assign(tree.find("/b"), std::string("/absent"), value("2"));
              }),
              refusal("/absent", "a/**"));
    EXPECT_THROW(tree.insert_or_assign(tree.end(), std::string("/a/"), value("2")), PathError);
    EXPECT_THAT(tree.takeChangeSet(), IsEmpty());
    EXPECT_EQ(tree.modifiedIndex(), 1U);
    EXPECT_EQ(textOf(tree.find("/b")->second), "1");
}

TEST(RestrictedDataTree, WritesInsideTheLimitAsTheMapDoes) {
    DataTree tree;
    tree.setKeyPattern("/a");
    EXPECT_TRUE(tree.insert_or_assign("/a/b", value("1")).second);
    const std::string key = "/a/b";
    const auto held = value("2");
    EXPECT_FALSE(tree.insert_or_assign(key, held).second);
    tree.insert_or_assign("/a/c", value("3"));
    tree.takeChangeSet();
    tree.erase("/a/b");
    tree.erase("/a/absent");
    EXPECT_THAT(linesOf(tree.takeChangeSet()), ElementsAre("/a/b: 2 -> null"));
    tree.insert_or_assign(tree.find("/a/c"), std::string("/a/c"), value("4"));
    EXPECT_THAT(linesOf(tree.takeChangeSet()), ElementsAre("/a/c: 3 -> 4"));
    tree.erase(tree.find("/a/c"));
    EXPECT_THAT(linesOf(tree.takeChangeSet()), ElementsAre("/a/c: 4 -> null"));
    EXPECT_EQ(tree.modifiedIndex(), 6U);
    EXPECT_EQ(tree.createdIndex(), 2U);
}

}  // namespace
}  // namespace Hox::ObserverTree
