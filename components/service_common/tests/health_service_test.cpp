#include "health/health_service.h"

#include <gmock/gmock.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <deque>
#include <future>

#include "health/service_names_plugin.h"
#include "hox/testing/wait_until.h"
#include "introspection.grpc.pb.h"

namespace Hox::Service {
namespace {

using Capability::Introspection::IntrospectionService;
using grpc::health::v1::Health;
using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;

constexpr auto introspection = "Hox.Capability.Introspection.IntrospectionService";

/// A watch of a client.
struct Watcher {
    Watcher(Health::Stub& stub, const std::string& service) {
        HealthCheckRequest request;
        request.set_service(service);
        reader = stub.Watch(&context, request);
    }

    /// The next status; UNKNOWN at the end.
    HealthCheckResponse::ServingStatus next() {
        HealthCheckResponse response;
        return reader->Read(&response) ? response.status() : HealthCheckResponse::UNKNOWN;
    }

    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<HealthCheckResponse>> reader;
};

/// A health service beside another service, as in the frame.
class HealthServiceTest : public ::testing::Test {
protected:
    HealthServiceTest() {
        grpc::ServerBuilder builder;
        builder.RegisterService(&m_health);
        builder.RegisterService(&m_other);
        ServiceNamesPlugin::addTo(builder,
                                  [this](const auto& names) { m_health.setServiceNames(names); });
        m_server = builder.BuildAndStart();
        m_stub = Health::NewStub(m_server->InProcessChannel(grpc::ChannelArguments()));
    }
    ~HealthServiceTest() override { m_server->Shutdown(std::chrono::system_clock::now()); }

    grpc::Status check(const std::string& service, HealthCheckResponse& response) {
        grpc::ClientContext context;
        HealthCheckRequest request;
        request.set_service(service);
        return m_stub->Check(&context, request, &response);
    }

    HealthCheckResponse::ServingStatus statusOf(const std::string& service) {
        HealthCheckResponse response;
        EXPECT_TRUE(check(service, response).ok());
        return response.status();
    }

    HealthService m_health;
    IntrospectionService::Service m_other;
    std::unique_ptr<grpc::Server> m_server;
    std::unique_ptr<Health::Stub> m_stub;
};

TEST_F(HealthServiceTest, TellsTheWholeAndEachServiceOfTheServer) {
    for (const std::string service : {"", introspection, "grpc.health.v1.Health"}) {
        EXPECT_EQ(statusOf(service), HealthCheckResponse::NOT_SERVING) << service;
    }
    m_health.setServing(true);
    for (const std::string service : {"", introspection, "grpc.health.v1.Health"}) {
        EXPECT_EQ(statusOf(service), HealthCheckResponse::SERVING) << service;
    }
    m_health.setServing(false);
    EXPECT_EQ(statusOf(""), HealthCheckResponse::NOT_SERVING);
}

TEST_F(HealthServiceTest, DoesNotKnowWhatTheServerLacks) {
    m_health.setServing(true);
    HealthCheckResponse response;
    EXPECT_EQ(check("Hox.Other", response).error_code(), grpc::StatusCode::NOT_FOUND);
}

TEST_F(HealthServiceTest, WatchersAreToldAtOnceAndAtEachChange) {
    Watcher whole(*m_stub, "");
    Watcher unknown(*m_stub, "Hox.Other");
    EXPECT_EQ(whole.next(), HealthCheckResponse::NOT_SERVING);
    EXPECT_EQ(unknown.next(), HealthCheckResponse::SERVICE_UNKNOWN);
    m_health.setServing(true);
    EXPECT_EQ(whole.next(), HealthCheckResponse::SERVING);
    m_health.setServiceNames({"Hox.Other"});
    EXPECT_EQ(unknown.next(), HealthCheckResponse::SERVING);
    m_health.setServing(true);
    m_health.setServing(false);
    EXPECT_EQ(whole.next(), HealthCheckResponse::NOT_SERVING);
}

TEST_F(HealthServiceTest, EndOfTheWatchesComesAfterTheLastStatus) {
    m_health.setServing(true);
    Watcher whole(*m_stub, "");
    EXPECT_EQ(whole.next(), HealthCheckResponse::SERVING);
    m_health.setServing(false);
    m_health.endWatches();
    EXPECT_EQ(whole.next(), HealthCheckResponse::NOT_SERVING);
    EXPECT_EQ(whole.next(), HealthCheckResponse::UNKNOWN);
    EXPECT_EQ(whole.reader->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
}

TEST_F(HealthServiceTest, RefusesMoreWatchersThanItHasThreadsFor) {
    std::deque<Watcher> watchers;
    for (std::size_t number = 0; number < HealthService::maxWatchers; ++number) {
        EXPECT_EQ(watchers.emplace_back(*m_stub, "").next(), HealthCheckResponse::NOT_SERVING);
    }
    Watcher oneTooMany(*m_stub, "");
    EXPECT_EQ(oneTooMany.next(), HealthCheckResponse::UNKNOWN);
    EXPECT_EQ(oneTooMany.reader->Finish().error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_EQ(statusOf(""), HealthCheckResponse::NOT_SERVING);

    watchers.pop_front();  // a client that leaves makes room
    EXPECT_TRUE(Testing::waitUntil(
        [this] { return Watcher(*m_stub, "").next() == HealthCheckResponse::NOT_SERVING; }));
}

}  // namespace
}  // namespace Hox::Service
