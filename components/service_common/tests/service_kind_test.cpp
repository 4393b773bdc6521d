#include "hox/service_common/service_initializer/service_kind.h"

#include <gmock/gmock.h>

#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Service {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

TEST(ServiceKind, HasAText) {
    EXPECT_EQ(serviceKindName(0), "grpc");
}

TEST(ServiceKind, IsRefusedIfUnknown) {
    for (const int kind : {-1, 1}) {
        EXPECT_THAT([&] { serviceKindName(kind); }, ThrowsMessage<CppUtil::InvalidArgumentError>(
                                                        HasSubstr("Invalid service type(")));
    }
}

}  // namespace
}  // namespace Hox::Service
