// Two capabilities in a running frame, with clients over real connections.
#include <google/protobuf/wrappers.pb.h>
#include <grpcpp/client_context.h>
#include <grpcpp/create_channel.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "configuration.grpc.pb.h"
#include "hox/configuration/conf_cap_mngr.h"
#include "hox/service_common/service_initializer/lum_service_initializer.h"
#include "hox/service_common/service_initializer/service_initialize_assert.h"
#include "hox/state_monitoring/state_monitor_cap_mngr.h"
#include "hox/testing/arguments.h"
#include "hox/testing/fake_discovery.h"
#include "hox/testing/notify_socket.h"
#include "hox/testing/reserved_port.h"
#include "hox/testing/temp_dir.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Capability {
namespace {

namespace Conf = Configuration::Api;
namespace State = StateMonitoring::Api;
using Hox::ObserverTree::ObserveReq;
using Hox::ObserverTree::ObsTreeObserveChangeSet;

/// The number of rounds of each client.
constexpr int rounds = 50;
/// The time limit of the whole load, also under a sanitizer on a busy machine.
constexpr auto limit = std::chrono::seconds(100);

/// The service, which serves on the calling thread until it gets SIGTERM.
class RunningService {
public:
    RunningService()
        : m_line({"--port", m_port.text(), "--configdir", m_folder.path().string(), "--id",
                  "head-1", "--logstdout"}),
          m_service(m_line.argc(), m_line.argv(), Hox::Testing::fakeDiscoveryClient) {
        Hox::Service::initAssertion(true);
        m_service.addCapability(std::make_unique<Configuration::ConfCapMngr>());
        m_service.addCapability(std::make_unique<StateMonitoring::StateMonitorCapMngr>());
    }

    void serveWhile(const std::function<void()>& load) {
        ASSERT_EQ(m_service.initialize(), 0);
        auto running = std::async(std::launch::async, [&] {
            EXPECT_TRUE(m_notifySocket.waitFor("READY=1"));
            load();
            kill(getpid(), SIGTERM);
        });
        m_service.serverStart();
        running.get();
    }

    std::shared_ptr<grpc::Channel> newChannel() const {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        return grpc::CreateCustomChannel("127.0.0.1:" + m_port.text(),
                                         grpc::InsecureChannelCredentials(), arguments);
    }

private:
    Hox::Testing::NotifySocket m_notifySocket;
    Hox::Testing::ReservedPort m_port;
    Hox::Testing::TempDir m_folder;
    Hox::Testing::Arguments m_line;
    Hox::Service::LumServiceInitializer m_service;
};

/// The owner of one slice.
class SliceOwner {
public:
    SliceOwner(const std::shared_ptr<grpc::Channel>& channel, const std::string& capability)
        : m_stub(Conf::ConfigurationService::NewStub(channel)) {
        m_confId.set_nodetype("mb");
        m_confId.set_nodeid("0");
        m_confId.set_capabilityid(capability);
    }

    void update(bool isPatch) {
        Conf::UpdateCapConfReq request;
        *request.mutable_confid() = m_confId;
        request.set_lastcapconfstateid(m_stateId);
        request.set_ispatch(isPatch);
        google::protobuf::StringValue value;
        value.set_value("value");
        for (int number = 0; number < 10; ++number) {
            auto& changes = *request.mutable_capconfchangeset()->mutable_node_change_map();
            changes["/key/" + std::to_string(number)]
                .add_nodepairlist()
                ->mutable_currentmessage()
                ->PackFrom(value);
        }
        grpc::ClientContext context;
        Conf::UpdateCapConfResp response;
        const auto status = m_stub->updateCapConf(&context, request, &response);
        EXPECT_TRUE(status.ok()) << status.error_message();
        m_stateId = response.capconfstateid();
    }

    /// Opens a stream on the slice, reads its first element and ends it.
    void lookIn() {
        Conf::ObserveCapConfReq request;
        *request.mutable_confid() = m_confId;
        grpc::ClientContext context;
        const auto reader = m_stub->observeCapConf(&context, request);
        ObsTreeObserveChangeSet element;
        EXPECT_TRUE(reader->Read(&element));
        EXPECT_EQ(element.node_change_map_size(), 11);
        context.TryCancel();
        reader->Finish();
    }

private:
    std::unique_ptr<Conf::ConfigurationService::Stub> m_stub;
    Conf::ConfId m_confId;
    std::string m_stateId;
};

void createNotification(State::StateMonitoringService::Stub& stub, const std::string& source) {
    State::CreateStateNotificationReq request;
    auto& notification = *request.mutable_statenotification();
    notification.set_service_id("load");
    notification.set_type("Load_Test");
    notification.set_source(source);
    notification.set_severity(State::ERROR);
    grpc::ClientContext context;
    State::CreateStateNotificationResp response;
    const auto status = stub.createStateNotification(&context, request, &response);
    EXPECT_TRUE(status.ok()) << status.error_message();
}

void readLatest(State::StateMonitoringService::Stub& stub) {
    grpc::ClientContext context;
    State::GetLatestStateNotificationsResp response;
    EXPECT_TRUE(stub.getLatestStateNotifications(&context, {}, &response).ok());
}

/// Answers notifications with updates, so that each capability causes work in the other one.
void answerNotifications(const RunningService& service) {
    const auto stub = State::StateMonitoringService::NewStub(service.newChannel());
    SliceOwner owner(service.newChannel(), "answering");
    ObserveReq request;
    request.set_key_pattern("/state/**");
    grpc::ClientContext context;
    const auto reader = stub->observeStateNotifications(&context, request);
    ObsTreeObserveChangeSet element;
    int round = 0;
    for (; round < rounds && reader->Read(&element); ++round) {
        owner.update(true);
    }
    EXPECT_EQ(round, rounds) << "the stream has ended";
    context.TryCancel();
    reader->Finish();
}

/// Reads a number of changes, leaves, and comes back.
void observeInTurns(const RunningService& service) {
    const auto stub = State::StateMonitoringService::NewStub(service.newChannel());
    ObserveReq request;
    request.set_key_pattern("/state/notifications/latest/**");
    for (int round = 0; round < rounds; ++round) {
        grpc::ClientContext context;
        const auto reader = stub->observeStateNotifications(&context, request);
        ObsTreeObserveChangeSet element;
        EXPECT_TRUE(reader->Read(&element));
        context.TryCancel();
        reader->Finish();
    }
}

void pushSlice(const RunningService& service, const std::string& name) {
    SliceOwner owner(service.newChannel(), name);
    for (int round = 0; round < rounds; ++round) {
        owner.update(round % 10 != 0);
        // After at least two updates the previous observer has left: a slice accepts only one.
        if (round % 3 == 0) {
            owner.lookIn();
        }
    }
}

void notify(const RunningService& service, const std::string& name) {
    const auto stub = State::StateMonitoringService::NewStub(service.newChannel());
    for (int round = 0; round < rounds; ++round) {
        createNotification(*stub, name + std::to_string(round % 7));
        readLatest(*stub);
    }
}

void load(const RunningService& service) {
    std::vector<std::future<void>> clients;
    const auto start = [&clients](const std::function<void()>& client) {
        clients.push_back(std::async(std::launch::async, client));
    };
    for (const char* name : {"one", "two"}) {
        start([&service, name] { pushSlice(service, name); });
        start([&service, name] { notify(service, name); });
    }
    start([&service] { answerNotifications(service); });
    start([&service] { observeInTurns(service); });
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (auto& client : clients) {
        if (client.wait_until(deadline) != std::future_status::ready) {
            std::cerr << "The capabilities wait for each other." << std::endl;
            std::_Exit(1);
        }
        client.get();
    }
}

// In a separate process, because a process can run only one service.
TEST(CapabilitiesDeathTest, NeverWaitForEachOtherUnderLoadInBothDirections) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            {
                RunningService service;
                service.serveWhile([&service] { load(service); });
            }
            std::exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Hox::Capability
