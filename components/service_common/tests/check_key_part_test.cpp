#include "hox/service_common/capability/check_key_part.h"

#include <gtest/gtest.h>

#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"

namespace Hox::Service {
namespace {

using ObserverTree::ProtoStatus;

TEST(CheckKeyPart, AcceptsWhatMakesAValidKey) {
    for (const auto* part : {"a", "a/b", "a b", ".a", "a.", "1.2", "\xC3\xA9", "~"}) {
        EXPECT_TRUE(checkKeyPart(part).isOk()) << part;
        EXPECT_TRUE(ObserverTree::PathManipulation().isKey(std::string("/x/") + part)) << part;
    }
}

TEST(CheckKeyPart, RefusesWhatTheTreeWouldNotTake) {
    for (const auto* part :
         {"", "/", "a//b", "/a", "a/", "*", "a*", "**", ".", "..", ".data.", "a/.b./c"}) {
        const auto status = checkKeyPart(part);
        EXPECT_EQ(status.statusCode(), ProtoStatus::INVALID_ARGUMENT) << part;
        EXPECT_EQ(status.errorMessage(),
                  "\"" + std::string(part) +
                      "\" cannot be a part of a key: none of its components may be empty, contain "
                      "an asterisk, or begin and end with a dot");
        EXPECT_THROW(ObserverTree::PathManipulation().parsePath(ObserverTree::PathType::Key,
                                                                std::string("/x/") + part),
                     ObserverTree::PathError)
            << part;
    }
}

}  // namespace
}  // namespace Hox::Service
