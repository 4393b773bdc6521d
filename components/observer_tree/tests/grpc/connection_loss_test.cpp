// A stream is told as lost however soon its peer is back: real processes are killed while another
// one already listens on their port, and a blocking call connects the channel again at once.
#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "grpc/told.h"
#include "hox/observer_tree/grpc/async_grpc_client_handler.h"
#include "hox/testing/child_process.h"
#include "hox/testing/wait_until.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::ChildProcess;
using Hox::Testing::waitUntil;
using ::testing::ElementsAre;
using Handle = AsyncGrpcClientHandler::CallMethodRaiiHandleType;

constexpr const char* lost = "1 Some error occured!";

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int roundCount = 60;  // a sanitized process takes several times as long to start
#else
constexpr int roundCount = 500;
#endif

/// Two processes that listen on one port: when one is killed, the other is there.
class ImmortalPeer {
public:
    ImmortalPeer() {
        start("0");
        m_port = m_processes.front().output();
        m_port.erase(m_port.find('\n'));
        start(m_port);
    }

    std::string address() const { return "127.0.0.1:" + m_port; }

    void kill(const std::string& name) {
        const auto victim = processOf(name);
        ASSERT_NE(victim, m_processes.end()) << name;
        victim->signal(SIGKILL);
        ASSERT_EQ(victim->waitForEnd(), 128 + SIGKILL);
    }

    void replace(const std::string& name) {
        m_processes.erase(processOf(name));
        start(m_port);
    }

private:
    std::list<ChildProcess>::iterator processOf(const std::string& name) {
        return std::find_if(m_processes.begin(), m_processes.end(), [&](const ChildProcess& one) {
            return "/" + std::to_string(one.pid()) == name;
        });
    }

    void start(const std::string& port) {
        const std::vector<std::string> command{HOX_TEST_PEER, port};
        auto& process = m_processes.emplace_back(command);
        EXPECT_TRUE(waitUntil([&] { return process.output().find('\n') != std::string::npos; }));
    }

    std::list<ChildProcess> m_processes;
    std::string m_port;
};

class LostStream : public ::testing::Test {
protected:
    LostStream() { m_handler.startThread(); }

    Handle observe(Told& told) {
        return m_handler.callMethodServerStreaming(ObserveReq(), observeItems(), m_channel, false,
                                                   told.elementCallback());
    }

    /// Returns as soon as a peer has answered: the channel is connected then.
    void callUntilAnswered() const {
        const auto stub = TestService::NewStub(m_channel);
        ASSERT_TRUE(waitUntil([&] {
            grpc::ClientContext context;
            context.set_wait_for_ready(true);
            Answer answer;
            return stub->readItem(&context, Item(), &answer).ok();
        }));
    }

    std::shared_ptr<grpc::Channel> newChannel() const {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 1);
        return grpc::CreateCustomChannel(m_peer.address(), grpc::InsecureChannelCredentials(),
                                         arguments);
    }

    ImmortalPeer m_peer;
    std::shared_ptr<grpc::Channel> m_channel = newChannel();
    std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    AsyncGrpcClientHandler m_handler{m_mutex};
};

TEST_F(LostStream, IsToldThoughABlockingCallHasConnectedTheChannelBeforeAnybodyLooked) {
    std::chrono::nanoseconds shortest = std::chrono::hours(1);
    for (int round = 0; round < roundCount; ++round) {
        Told events;
        const auto handle = observe(events);
        ASSERT_TRUE(events.waitFor(1)) << "round " << round;
        const std::string first = events.lines().front();
        {
            // The handler's thread cannot look at the end of the stream meanwhile.
            const std::lock_guard<std::mutex> lock(*m_mutex);
            ASSERT_NO_FATAL_FAILURE(m_peer.kill(first));
            const auto begin = std::chrono::steady_clock::now();
            ASSERT_NO_FATAL_FAILURE(callUntilAnswered());
            shortest = std::min<std::chrono::nanoseconds>(shortest,
                                                          std::chrono::steady_clock::now() - begin);
        }
        ASSERT_TRUE(events.waitFor(2)) << "round " << round;
        ASSERT_THAT(events.lines(), ElementsAre(first, lost)) << "round " << round;
        m_peer.replace(first);
    }
    RecordProperty("shortest_absence_us", std::to_string(shortest.count() / 1000));
}

TEST_F(LostStream, IsToldForEachStreamHoweverLongTheThreadWasHeldUp) {
    for (int round = 0; round < 3; ++round) {
        Told events;
        Told others;
        const auto handle = observe(events);
        ASSERT_TRUE(events.waitFor(1)) << "round " << round;
        const std::string first = events.lines().front();
        const auto other = observe(others);
        ASSERT_TRUE(others.waitFor(1)) << "round " << round;
        {
            const std::lock_guard<std::mutex> lock(*m_mutex);
            ASSERT_NO_FATAL_FAILURE(m_peer.kill(first));
            ASSERT_NO_FATAL_FAILURE(callUntilAnswered());
            waitUntil([] { return false; }, std::chrono::milliseconds(700));
        }
        ASSERT_TRUE(events.waitFor(2)) << "round " << round;
        EXPECT_THAT(events.lines(), ElementsAre(first, lost)) << "round " << round;
        ASSERT_TRUE(others.waitFor(2)) << "round " << round;
        EXPECT_THAT(others.lines(), ElementsAre(first, lost)) << "round " << round;
        m_peer.replace(first);
    }
}

TEST_F(LostStream, IsToldThoughAnotherObserverHasConnectedTheChannelAgain) {
    for (int round = 0; round < roundCount / 10; ++round) {
        Told events;
        Told others;
        const auto handle = observe(events);
        ASSERT_TRUE(events.waitFor(1)) << "round " << round;
        const std::string first = events.lines().front();
        ASSERT_NO_FATAL_FAILURE(m_peer.kill(first));
        const auto other = observe(others);
        ASSERT_TRUE(events.waitFor(2)) << "round " << round;
        ASSERT_THAT(events.lines(), ElementsAre(first, lost)) << "round " << round;
        m_peer.replace(first);
    }
}

TEST_F(LostStream, IsToldThoughItWasLostWhileItsChannelConnected) {
    for (int round = 0; round < roundCount / 10; ++round) {
        m_channel = newChannel();
        Told events;
        std::unique_lock<std::mutex> lock(*m_mutex);
        const auto handle = observe(events);
        ASSERT_NO_FATAL_FAILURE(callUntilAnswered());
        grpc::ClientContext context;
        Answer answer;
        ASSERT_TRUE(TestService::NewStub(m_channel)->readItem(&context, Item(), &answer).ok());
        ASSERT_NO_FATAL_FAILURE(m_peer.kill(answer.text()));
        ASSERT_NO_FATAL_FAILURE(callUntilAnswered());
        lock.unlock();
        // An element that the killed process has sent may have arrived before.
        EXPECT_TRUE(waitUntil([&] {
            const auto lines = events.lines();
            return !lines.empty() && lines.back() == lost;
        })) << "round "
            << round;
        m_peer.replace(answer.text());
    }
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
