#include "hox/observer_tree/key_components.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace Hox::ObserverTree {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> componentsOf(std::string_view key) {
    std::vector<std::string> components;
    for (const auto component : KeyComponents(key)) {
        components.emplace_back(component);
    }
    return components;
}

TEST(KeyComponents, AreTheTextsBetweenTheSlashes) {
    EXPECT_THAT(componentsOf("/a"), ElementsAre("a"));
    EXPECT_THAT(componentsOf("/sys/conf/x.y/ /17"), ElementsAre("sys", "conf", "x.y", " ", "17"));
    EXPECT_THAT(componentsOf(std::string_view("/a\0b/c", 6)),
                ElementsAre(std::string("a\0b", 3), "c"));
}

TEST(KeyComponents, AreNoneForTheRoot) {
    EXPECT_THAT(componentsOf("/"), IsEmpty());
}

TEST(KeyComponents, PassMalformedTextsOnAsTheyAre) {
    EXPECT_THAT(componentsOf(""), IsEmpty());
    EXPECT_THAT(componentsOf("//"), ElementsAre("", ""));
    EXPECT_THAT(componentsOf("/a/"), ElementsAre("a", ""));
    EXPECT_THAT(componentsOf("/a//b"), ElementsAre("a", "", "b"));
    EXPECT_THAT(componentsOf("a/b"), ElementsAre("", "b"));
}

TEST(KeyComponents, AreViewsIntoTheText) {
    const std::string key = "/a/bc/d";
    std::vector<std::size_t> starts;
    for (const auto component : KeyComponents(key)) {
        starts.push_back(static_cast<std::size_t>(component.data() - key.data()));
    }
    EXPECT_THAT(starts, ElementsAre(1, 3, 6));
}

}  // namespace
}  // namespace Hox::ObserverTree
