#include "hox/observer_tree/builders/service_traits.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

TEST(ServiceTraits, KnowAServiceByEitherOfItsClasses) {
    EXPECT_EQ(ServiceTraits<TestService>::fullName(), "Hox.ObserverTree.Test.TestService");
    EXPECT_EQ(ServiceTraits<TestService::Service>::fullName(), "Hox.ObserverTree.Test.TestService");
    EXPECT_TRUE((std::is_same_v<ServiceTraits<TestService>::Service, TestService::Service>));
    EXPECT_TRUE(
        (std::is_same_v<ServiceTraits<TestService::Service>::Service, TestService::Service>));
}

TEST(ServiceTraits, MakeANameOfDotsFromAClass) {
    EXPECT_EQ(serviceNameOfClass("A::B::C::Service"), "A.B.C");
    EXPECT_EQ(serviceNameOfClass("C::Service"), "C");
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
