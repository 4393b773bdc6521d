#include "server/connection_acceptor.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/server.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <vector>

#include "hox/linutils/raii_filedescriptors.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/reserved_port.h"
#include "hox/testing/wait_until.h"
#include "introspection.grpc.pb.h"

namespace Hox::Service {
namespace {

using Capability::Introspection::IntrospectionService;
using Capability::Introspection::ListLoggersResp;
using LinuxCppUtil::OwnedFileDescriptor;
using ::testing::ElementsAre;
using Testing::LogCapture;
using Testing::waitUntil;

constexpr auto loggerName = "connection_acceptor.h::Hox::Service::ConnectionAcceptor";
constexpr auto shortage = "Too few descriptors are left: new connections wait";

/// Answers every call.
class AnyService : public IntrospectionService::Service {
    grpc::Status listLoggers(grpc::ServerContext* /*context*/,
                             const google::protobuf::Empty* /*request*/,
                             ListLoggersResp* /*response*/) override {
        return grpc::Status::OK;
    }
};

/// A server that gets its connections from an acceptor.
class ConnectionAcceptorTest : public ::testing::Test {
protected:
    ConnectionAcceptorTest() {
        grpc::ServerBuilder builder;
        builder.RegisterService(&m_service);
        m_acceptor.emplace(builder);
        m_acceptor->listen("localhost", m_port.text());
        m_server = builder.BuildAndStart();
        m_acceptor->start();
    }
    ~ConnectionAcceptorTest() override {
        m_acceptor.reset();
        m_server->Shutdown(std::chrono::system_clock::now());
    }

    std::shared_ptr<grpc::Channel> connect() const {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        return grpc::CreateCustomChannel("127.0.0.1:" + m_port.text(),
                                         grpc::InsecureChannelCredentials(), arguments);
    }

    static grpc::Status call(const std::shared_ptr<grpc::Channel>& channel) {
        grpc::ClientContext context;
        context.set_wait_for_ready(true);
        context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
        ListLoggersResp response;
        return IntrospectionService::NewStub(channel)->listLoggers(
            &context, google::protobuf::Empty(), &response);
    }

    /// The record may follow the first call that is answered again.
    void expectEndOfShortage() const {
        EXPECT_TRUE(waitUntil([this] { return m_log.texts().size() > 1; }));
        EXPECT_THAT(m_log.texts(), ElementsAre(shortage, "New connections are accepted again"));
    }

    const LogCapture m_log{loggerName};
    const Testing::ReservedPort m_port;
    AnyService m_service;
    std::optional<ConnectionAcceptor> m_acceptor;
    std::unique_ptr<grpc::Server> m_server;
};

/// Uses up descriptors, so that the process has only this number left during its lifetime.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t left) {
        ::getrlimit(RLIMIT_NOFILE, &m_former);
        const auto next = LinuxCppUtil::ownFileDescriptor(::fcntl(0, F_DUPFD_CLOEXEC, 0));
        rlimit few = m_former;
        few.rlim_cur = static_cast<rlim_t>(*next) + left;
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_former); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors(FewDescriptors&&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    FewDescriptors& operator=(FewDescriptors&&) = delete;

private:
    rlimit m_former{};
};

TEST_F(ConnectionAcceptorTest, ServesClientsOneAfterTheOther) {
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(call(connect()).ok());
    }
    EXPECT_THAT(m_log.texts(), ElementsAre());
}

TEST_F(ConnectionAcceptorTest, ConnectionsWaitUntilThereAreDescriptorsAgain) {
    const auto first = connect();
    ASSERT_TRUE(call(first).ok());
    const auto second = connect();
    {
        // The client of this test also needs some of them.
        const FewDescriptors few(ConnectionAcceptor::sparedDescriptors);
        second->GetState(true);
        ASSERT_TRUE(waitUntil([this] { return !m_log.texts().empty(); }));
        EXPECT_NE(second->GetState(false), GRPC_CHANNEL_READY);
        EXPECT_TRUE(call(first).ok());
        EXPECT_THAT(m_log.textsAt(spdlog::level::warn), ElementsAre(shortage));
    }
    EXPECT_TRUE(call(second).ok());
    expectEndOfShortage();
}

TEST_F(ConnectionAcceptorTest, SurvivesThatTheKernelHasNoDescriptorLeft) {
    const auto client = connect();
    client->GetState(true);
    ASSERT_TRUE(call(client).ok());
    std::vector<OwnedFileDescriptor> connections;
    {
        const auto socket =
            LinuxCppUtil::ownFileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(m_port.number());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const FewDescriptors none(0);
        ASSERT_EQ(::connect(*socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
                  0);
        ASSERT_TRUE(waitUntil([this] { return !m_log.texts().empty(); }));
    }
    EXPECT_TRUE(call(connect()).ok());
    expectEndOfShortage();
}

TEST_F(ConnectionAcceptorTest, PortsAreClosedAtTheEnd) {
    ASSERT_TRUE(call(connect()).ok());
    m_acceptor->stop();
    const auto late = connect();
    late->GetState(true);
    EXPECT_FALSE(late->WaitForConnected(std::chrono::system_clock::now()));
    EXPECT_TRUE(
        waitUntil([&late] { return late->GetState(true) == GRPC_CHANNEL_TRANSIENT_FAILURE; }));
    m_acceptor->stop();
}

}  // namespace
}  // namespace Hox::Service
