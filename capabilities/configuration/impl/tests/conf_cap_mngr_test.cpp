#include "hox/configuration/conf_cap_mngr.h"

#include <gmock/gmock.h>
#include <grpcpp/client_context.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cxxopts.hpp>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "configuration.grpc.pb.h"
#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/testing/fake_discovery.h"
#include "hox/testing/temp_dir.h"

namespace Hox::Capability::Configuration {
namespace {

namespace fs = std::filesystem;

/// A queue like that of another capability: the queue of configuration does not read from the
/// network.
class PolledQueue {
public:
    explicit PolledQueue(grpc::ServerBuilder& builder) : m_queue(builder.AddCompletionQueue()) {}
    ~PolledQueue() {
        m_queue->Shutdown();
        void* tag = nullptr;
        bool isOk = false;
        while (m_queue->Next(&tag, &isOk)) {
        }
    }
    PolledQueue(const PolledQueue&) = delete;
    PolledQueue& operator=(const PolledQueue&) = delete;
    PolledQueue(PolledQueue&&) = delete;
    PolledQueue& operator=(PolledQueue&&) = delete;

private:
    const std::unique_ptr<grpc::ServerCompletionQueue> m_queue;
};

/// The capability in a frame without other capabilities; the test calls its hooks.
class Configuration : public ::testing::Test {
protected:
    Configuration()
        : m_ctx("program", std::make_shared<Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder>()) {
        auto manager = std::make_unique<ConfCapMngr>();
        m_manager = manager.get();
        m_ctx.addCapability(std::move(manager));
        Hox::Testing::prepareForPublication(m_ctx);
        m_ctx.getOptions().add_options()("configdir", "", cxxopts::value<std::string>());
        const std::array arguments = {"program", "--configdir", m_dir.path().c_str()};
        m_ctx.parseOptions(static_cast<int>(arguments.size()), arguments.data());
        m_ctx.setIdentity({"head-1", "0", "mb"});
        m_ctx.setServerBuilder(std::make_unique<grpc::ServerBuilder>());
        m_otherQueue.emplace(m_ctx.getServerBuilder());
    }

    ~Configuration() override {
        if (m_ctx.getGrpcServer()) {
            m_ctx.getGrpcServer()->Shutdown();
        }
        m_otherQueue.reset();  // events left in it refer to the server
    }

    /// Everything up to the hook that starts serving.
    void startServer() {
        {
            const std::lock_guard<std::mutex> lock(*m_manager->getMutex());
            m_manager->initCapability(m_ctx);
        }
        m_ctx.setGrpcServer(m_ctx.getServerBuilder().BuildAndStart());
        const std::lock_guard<std::mutex> lock(*m_manager->getMutex());
        m_manager->serverStarted(m_ctx);
    }

    void serve() {
        const std::lock_guard<std::mutex> lock(*m_manager->getMutex());
        m_manager->proxyObsTreesReady(m_ctx);
    }

    /// The status of a call of the only method that needs no other capability.
    grpc::StatusCode exportPackage(std::chrono::milliseconds limit) {
        const auto stub = Api::ConfigurationService::NewStub(
            m_ctx.getGrpcServer()->InProcessChannel(grpc::ChannelArguments()));
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + limit);
        Api::GetSysConfResp response;
        return stub->getSysConf(&context, {}, &response).error_code();
    }

    static constexpr std::chrono::seconds longTime{30};
    static constexpr std::chrono::milliseconds shortTime{200};

    Hox::Testing::TempDir m_dir;
    const fs::path m_saved = m_dir / "configuration";
    std::optional<PolledQueue> m_otherQueue;
    Hox::Service::LumServiceCtx m_ctx;
    ConfCapMngr* m_manager = nullptr;
};

TEST_F(Configuration, HasItsPlaceInTheCatalogue) {
    EXPECT_EQ(m_manager->id(), 18);
    EXPECT_EQ(Hox::Service::capabilityName(18), "configuration");
}

TEST_F(Configuration, AddsNoOptions) {
    const std::string help = m_ctx.getOptions().help();
    m_manager->addOptions(m_ctx.getOptions());
    EXPECT_EQ(m_ctx.getOptions().help(), help);
}

TEST_F(Configuration, LoadsAndServesOnlyOnceAllProxiesAreReady) {
    startServer();
    EXPECT_FALSE(fs::exists(m_saved));
    EXPECT_EQ(exportPackage(shortTime), grpc::StatusCode::DEADLINE_EXCEEDED);
    serve();
    EXPECT_TRUE(fs::is_directory(m_saved)) << "below the folder of all configuration";
    EXPECT_EQ(exportPackage(longTime), grpc::StatusCode::OK);
    EXPECT_TRUE(fs::exists(m_saved / "swvariant"));
}

TEST_F(Configuration, AnswersUnderItsMutex) {
    startServer();
    serve();
    {
        const std::lock_guard<std::mutex> lock(*m_manager->getMutex());
        EXPECT_EQ(exportPackage(shortTime), grpc::StatusCode::DEADLINE_EXCEEDED);
    }
    EXPECT_EQ(exportPackage(longTime), grpc::StatusCode::OK);
}

using ConfigurationDeathTest = Configuration;

TEST_F(ConfigurationDeathTest, NeedsTheServerBeforeItsProxy) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(m_manager->serverStarted(m_ctx), "m_grpcServer.get\\(\\)");
}

}  // namespace
}  // namespace Hox::Capability::Configuration
