#include "hox/service_common/service_initializer/proxy_obs_tree_helper.h"

#include <gmock/gmock.h>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include <chrono>

#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Service {
namespace {

using Hox::Capability::StateMonitoring::Api::GetCurrentStateReq;
using Hox::Capability::StateMonitoring::Api::GetCurrentStateResp;
using Hox::Capability::StateMonitoring::Api::StateMonitoringService;
using Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder;
using Hox::Testing::LogCapture;
using Hox::Testing::waitUntil;
using ::testing::EndsWith;

class MonitorThatWarns : public StateMonitoringService::Service {
    grpc::Status getCurrentState(grpc::ServerContext* /*context*/,
                                 const GetCurrentStateReq* /*request*/,
                                 GetCurrentStateResp* response) override {
        response->set_currentstate(Hox::Capability::StateMonitoring::Api::WARN);
        return grpc::Status::OK;
    }
};

/// A context whose server has no listener.
class ProxyTreeHelper : public ::testing::Test {
protected:
    void startServer() {
        grpc::ServerBuilder builder;
        builder.RegisterService(&m_service);
        m_ctx.setGrpcServer(builder.BuildAndStart());
    }

    std::shared_ptr<ObserverTree::GrpcProxyObserverTree> create(const std::string& address) const {
        return m_ctx.getProxyObsTreeHelper().createProxyObsTree<StateMonitoringService>(m_mutex,
                                                                                        address);
    }

    MonitorThatWarns m_service;
    std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    LumServiceCtx m_ctx{"program", std::make_shared<AsyncGrpcProxyObsTreeBuilder>()};
};

TEST_F(ProxyTreeHelper, ReachesTheServerOfItsOwnProcess) {
    startServer();
    const auto proxy = create("inprocess");
    EXPECT_TRUE(proxy->inProcess());
    EXPECT_TRUE(proxy->waitForConnected(std::chrono::system_clock::time_point::min()));
    GetCurrentStateResp response;
    EXPECT_TRUE(proxy
                    ->callUnary("/state/current", ObserverTree::UnaryOps::READ,
                                GetCurrentStateReq(), response)
                    .isOk());
    EXPECT_EQ(response.currentstate(), Hox::Capability::StateMonitoring::Api::WARN);
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
    // Another test may have created the logger with the sinks of its own log system.
    spdlog::drop("AsyncGrpcClientHandler");
    const LogCapture log("AsyncGrpcClientHandler", spdlog::level::debug);
    startServer();
    const auto first = create("inprocess");
    const auto second = create("inprocess");
    EXPECT_NE(first->channel(), second->channel());
    ASSERT_TRUE(waitUntil([&log] { return log.texts().size() == 2; }));
    // Process and thread precede the text.
    for (const auto& text : log.texts()) {
        EXPECT_THAT(text, EndsWith(" AsyncGrpcClientHandler Thread Started"));
    }
    EXPECT_NE(log.texts().front(), log.texts().back());
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
            helper.createProxyObsTree<StateMonitoringService>(m_mutex, "inprocess");
        },
        "Assertion failed: \\[m_proxyObsTreeBuilder.get\\(\\)\\]");
}

}  // namespace
}  // namespace Hox::Service
