#include "hox/service_common/service_initializer/proxy_obs_tree_helper.h"

#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>

#include <chrono>

#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "introspection.grpc.pb.h"

namespace Hox::Service {
namespace {

using Capability::Introspection::IntrospectionService;
using Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder;

/// A context whose server has no listener.
class ProxyTreeHelper : public ::testing::Test {
protected:
    void startServer() {
        grpc::ServerBuilder builder;
        builder.RegisterService(&m_service);
        m_ctx.setGrpcServer(builder.BuildAndStart());
    }

    std::shared_ptr<ObserverTree::GrpcProxyObserverTree> create(const std::string& address) const {
        return m_ctx.getProxyObsTreeHelper().createProxyObsTree<IntrospectionService>(m_mutex,
                                                                                      address);
    }

    IntrospectionService::Service m_service;
    std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    LumServiceCtx m_ctx{"program", std::make_shared<AsyncGrpcProxyObsTreeBuilder>()};
};

TEST_F(ProxyTreeHelper, ReachesTheServerOfItsOwnProcess) {
    startServer();
    const auto proxy = create("inprocess");
    EXPECT_TRUE(proxy->inProcess());
    EXPECT_TRUE(proxy->waitForConnected(std::chrono::system_clock::time_point::min()));
}

TEST_F(ProxyTreeHelper, TakesAnyOtherTextForATargetOfGrpc) {
    startServer();
    for (const char* address : {"inprocess:1", "Inprocess", "127.0.0.1:1"}) {
        const auto proxy = create(address);
        EXPECT_FALSE(proxy->inProcess()) << address;
        EXPECT_FALSE(proxy->waitForConnected(std::chrono::system_clock::now())) << address;
    }
}

TEST_F(ProxyTreeHelper, GivesEachProxyAChannelAndAThreadOfItsOwn) {
    startServer();
    EXPECT_NE(create("inprocess")->channel(), create("inprocess")->channel());
}

TEST_F(ProxyTreeHelper, ClosesTheWayIntoTheProcessWithItsGate) {
    startServer();
    const auto proxy = create("inprocess");
    EXPECT_TRUE(proxy->passGate().owns_lock());
    m_ctx.getProxyObsTreeHelper().inProcessGate()->close();
    EXPECT_FALSE(proxy->passGate().owns_lock());
}

using ProxyTreeHelperDeathTest = ProxyTreeHelper;

TEST_F(ProxyTreeHelperDeathTest, WantsAServerThatHasStarted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(create("inprocess"), "Assertion failed: \\[m_grpcServer.get\\(\\)\\]");
    EXPECT_DEATH(create("127.0.0.1:1"), "Assertion failed: \\[m_grpcServer.get\\(\\)\\]");
}

TEST_F(ProxyTreeHelperDeathTest, WantsABuilder) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            startServer();
            const ProxyObsTreeHelper helper(nullptr, m_ctx.getGrpcServer());
            helper.createProxyObsTree<IntrospectionService>(m_mutex, "inprocess");
        },
        "Assertion failed: \\[m_proxyObsTreeBuilder.get\\(\\)\\]");
}

}  // namespace
}  // namespace Hox::Service
