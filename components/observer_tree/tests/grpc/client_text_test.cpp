#include "grpc/client_text.h"

#include <gtest/gtest.h>

namespace Hox::ObserverTree::Test {
namespace {

TEST(ClientText, ShortTextStaysAsItIs) {
    EXPECT_EQ(clientText(""), "");
    EXPECT_EQ(clientText(std::string(2000, 'x')), std::string(2000, 'x'));
}

TEST(ClientText, LongTextIsCutBetweenTwoCharacters) {
    EXPECT_EQ(clientText(std::string(2001, 'x')), std::string(2000, 'x'));
    const std::string twoBytes = "\xC3\xA4";
    EXPECT_EQ(clientText(std::string(1999, 'x') + twoBytes), std::string(1999, 'x'));
    EXPECT_EQ(clientText(std::string(1998, 'x') + twoBytes + "y"),
              std::string(1998, 'x') + twoBytes);
    const std::string fourBytes = "\xF0\x9F\x93\xBA";
    EXPECT_EQ(clientText(std::string(1997, 'x') + fourBytes), std::string(1997, 'x'));
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
