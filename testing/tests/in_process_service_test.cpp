#include "hox/testing/in_process_service.h"

#include <gmock/gmock.h>
#include <grpcpp/client_context.h>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>

#include <cxxopts.hpp>
#include <future>

#include "introspection.grpc.pb.h"

namespace Hox::Testing {
namespace {

using Hox::Capability::Introspection::IntrospectionService;
using Hox::Capability::Introspection::ListLoggersResp;
using Hox::Service::ICapMngr;
using Hox::Service::LumServiceCtx;
using ::testing::ElementsAre;

/// Records its hooks, each with " locked" if its mutex was held.
class RecordingCapability : public ICapMngr {
public:
    explicit RecordingCapability(std::vector<std::string>& events) : m_events(events) {}
    ~RecordingCapability() override { record("gone"); }

    int id() const override { return 24; }
    void addOptions(cxxopts::Options& options) override {
        record("addOptions");
        options.add_options()("word", "", cxxopts::value<std::string>());
    }
    void initCapability(LumServiceCtx& ctx) override {
        record("initCapability " + ctx.optionValue("word") + " " + ctx.getIdentity().id);
        ctx.getServerBuilder().RegisterService(&m_service);
    }
    void serverStarted(LumServiceCtx& ctx) override {
        record(ctx.getGrpcServer() ? "serverStarted" : "no server");
    }
    void proxyObsTreesReady(LumServiceCtx& /*ctx*/) override { record("proxyObsTreesReady"); }

private:
    void record(const std::string& event) {
        const bool isFree = std::async(std::launch::async, [this] {
                                return std::unique_lock(*m_mutex, std::try_to_lock).owns_lock();
                            }).get();
        m_events.push_back(event + (isFree ? "" : " locked"));
    }

    std::vector<std::string>& m_events;
    IntrospectionService::Service m_service;
};

TEST(InProcessService, RunsACapabilityAsTheFrameDoes) {
    std::vector<std::string> events;
    {
        InProcessService service(std::make_unique<RecordingCapability>(events), {"--word", "text"});
        EXPECT_THAT(events, ElementsAre("addOptions", "initCapability text head-1 locked",
                                        "serverStarted locked", "proxyObsTreesReady locked"));
        EXPECT_EQ(service.capability().id(), 24);
        events.clear();
    }
    EXPECT_THAT(events, ElementsAre("gone"));
}

TEST(InProcessService, IsReachedByItsChannels) {
    std::vector<std::string> events;
    const InProcessService service(std::make_unique<RecordingCapability>(events));
    grpc::ClientContext context;
    ListLoggersResp response;
    EXPECT_EQ(IntrospectionService::NewStub(service.channel())
                  ->listLoggers(&context, {}, &response)
                  .error_code(),
              grpc::StatusCode::UNIMPLEMENTED);
}

}  // namespace
}  // namespace Hox::Testing
