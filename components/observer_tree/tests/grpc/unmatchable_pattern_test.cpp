#include "grpc/unmatchable_pattern.h"

#include <gtest/gtest.h>

#include "obstree.pb.h"
#include "test_service.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

std::optional<std::string> reasonFor(const std::string& pattern) {
    ObserveReq request;
    request.set_key_pattern(pattern);
    return findUnmatchablePattern(request);
}

TEST(UnmatchablePattern, IsOneWithALiteralBehindDoubleStar) {
    for (const std::string pattern : {"/**/a", "/a/**/b", "/a/**/*/b", "/a/**/b/*"}) {
        EXPECT_EQ(reasonFor(pattern),
                  "A key_pattern with a literal component behind ** can not be matched; path = " +
                      pattern + ". ");
    }
}

TEST(UnmatchablePattern, OthersAreLeftToTheTree) {
    for (const auto* pattern : {"/", "/a", "/a/*", "/*/a", "/**", "/a/**", "/a/**/*", "/a/*/b", "",
                                "a", "/a/**/**", "/a/**/b*", "/a//b"}) {
        EXPECT_EQ(reasonFor(pattern), std::nullopt) << pattern;
    }
}

TEST(UnmatchablePattern, OtherRequestsAreLeftToTheTree) {
    Item request;
    request.set_name("/**/a");
    EXPECT_EQ(findUnmatchablePattern(request), std::nullopt);
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
