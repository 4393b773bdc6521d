#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "grpc/proxy_tree_fixture.h"
#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/observer_tree/func_node_handler_error.h"

namespace Hox::ObserverTree::Test {
namespace {

using ::testing::StartsWith;

TEST(ProxyTreeBuilder, OffersNothingToObserveWithoutAnObserveMethod) {
    const auto mutex = std::make_shared<std::mutex>();
    const auto channel = grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials());
    const auto proxy =
        AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<PlainService>(channel, mutex, nullptr);
    EXPECT_THROW(proxy->observe<ObserveReq>("/items", ObserveReq(), nullptr, 0),
                 FuncNodeHandlerError);
}

/// Distinguishes the two methods that are bound to one address and operation.
class ReadsOfTwoKinds : public TestService::Service {
    grpc::Status readItem(grpc::ServerContext* /*context*/, const Item* /*request*/,
                          Answer* response) override {
        response->set_text("first");
        return grpc::Status::OK;
    }
    grpc::Status readItemToo(grpc::ServerContext* /*context*/, const Item* /*request*/,
                             Answer* response) override {
        response->set_text("last");
        return grpc::Status::OK;
    }
};

TEST(ProxyTreeBuilder, LetsTheLastOfTwoEqualMethodsWin) {
    ReadsOfTwoKinds service;
    grpc::ServerBuilder builder;
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    const ProxyClient client(server->InProcessChannel(grpc::ChannelArguments()),
                             std::make_shared<InProcessGate>());
    Answer answer;
    EXPECT_TRUE(client.call(UnaryOps::READ, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "last");
}

TEST(ProxyTreeBuilder, RefusesAMethodWithoutAValidOperation) {
    const auto mutex = std::make_shared<std::mutex>();
    const auto channel = grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials());
    const std::lock_guard<std::mutex> lock(*mutex);  // the frame also holds it in its hooks
    try {
        AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<WrongTypeService>(channel, mutex,
                                                                            nullptr);
        FAIL();
    } catch (const ObsTreeBuildError& error) {
        EXPECT_THAT(error.what(),
                    StartsWith("ObsTree Build Error: No handler implemented for action: 0rpc "
                               "reserved("));
    }
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
