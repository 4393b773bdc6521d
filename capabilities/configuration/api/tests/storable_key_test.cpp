#include "hox/configuration/storable_key.h"

#include <gmock/gmock.h>

namespace Hox::Capability::Configuration {
namespace {

using ::testing::HasSubstr;

TEST(StorableKey, HasALimitedForm) {
    const std::string component(255, 'x');
    EXPECT_EQ(whyNotStorable("/sys/" + component + "/b"), "");
    EXPECT_THAT(whyNotStorable("/sys/" + component + "x/b"),
                HasSubstr("/sys/" + component + "x/b"));
    EXPECT_THAT(whyNotStorable("/a/data/b"), HasSubstr("/a/data/b"));
    EXPECT_THAT(whyNotStorable("/a/data~"), HasSubstr("/a/data~"));
    EXPECT_EQ(whyNotStorable("/a/database"), "");
    std::string longKey;
    while (longKey.size() < 3000) {
        longKey += "/" + std::string(99, 'x');
    }
    EXPECT_EQ(whyNotStorable(longKey), "");
    EXPECT_THAT(whyNotStorable(longKey + "x"), HasSubstr(longKey));
    std::string deepKey = "/sys/conf";
    for (int count = 2; count < 128; ++count) {
        deepKey += "/a";
    }
    EXPECT_EQ(whyNotStorable(deepKey), "");
    EXPECT_EQ(whyNotStorable(deepKey + "/b"),
              "Key has more than 128 components: " + deepKey + "/b");
}

}  // namespace
}  // namespace Hox::Capability::Configuration
