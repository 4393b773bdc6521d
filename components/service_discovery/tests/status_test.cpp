#include "hox/service_discovery/status.h"

#include <gtest/gtest.h>

namespace Hox::Service::Discovery {
namespace {

TEST(Status, HasItsNumbers) {
    EXPECT_EQ(Published, 0);
    EXPECT_EQ(Collision, 1);
    EXPECT_EQ(Registering, 2);
    EXPECT_EQ(PublishFailure, 3);
    EXPECT_EQ(ServiceFound, 4);
    EXPECT_EQ(ServiceRemoved, 5);
    EXPECT_EQ(ServiceResolved, 6);
    EXPECT_EQ(ResolveFailure, 7);
    EXPECT_EQ(BrowseFailure, 8);
    EXPECT_EQ(ClientLost, 10);
}

}  // namespace
}  // namespace Hox::Service::Discovery
