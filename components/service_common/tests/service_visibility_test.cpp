#include "hox/service_common/service_initializer/service_visibility.h"

#include <gmock/gmock.h>

#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Service {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

TEST(ServiceVisibility, HasAText) {
    EXPECT_EQ(visibilityName(0), "private");
    EXPECT_EQ(visibilityName(1), "public");
}

TEST(ServiceVisibility, IsRefusedIfUnknown) {
    for (const int visibility : {-1, 2}) {
        EXPECT_THAT(
            [&] { visibilityName(visibility); },
            ThrowsMessage<CppUtil::InvalidArgumentError>(HasSubstr("Invalid service type(")));
    }
}

}  // namespace
}  // namespace Hox::Service
