// Peers that disappear, come back, share the process or send invalid data.
#include "hox/observer_tree/proxy_observer_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "grpc/proxy_tree_fixture.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::LogCapture;
using Hox::Testing::waitUntil;
using ::testing::ElementsAre;

TEST_F(ProxyTree, HandlesMayBeDroppedWhileThePeerGoesAndComesBack) {
    const std::string address = m_served->address;
    for (int round = 0; round < 10; ++round) {
        auto kept = m_client->observe("/items/*", m_told.callback());
        auto dropped = m_client->observe("/items/*", [](const ChangeSetType&, const Status&) {});
        expectObservers(2);
        auto end = std::async(std::launch::async,
                              [this] { m_served->shutdown(std::chrono::milliseconds(0)); });
        dropped.reset();
        end.get();
        ASSERT_TRUE(m_told.waitFor(static_cast<std::size_t>(round) + 1));
        m_served.emplace(address);
        ASSERT_TRUE(m_client->proxy->waitForConnected(std::chrono::system_clock::now() +
                                                      std::chrono::seconds(30)));
    }
    EXPECT_THAT(m_told.lines(), testing::Each("1 Some error occured!"));
}

TEST_F(ProxyTree, LetsAnObserverComeBackInTheCallThatTellsTheLossOfThePeer) {
    std::promise<void> peerIsBack;
    std::any handle;
    auto record = m_told.callback();
    ObserveReq request;
    request.set_key_pattern("/items/*");
    m_client->observe(handle, "/items/*", [&](const ChangeSetType& changes, const Status& status) {
        record(changes, status);
        peerIsBack.get_future().wait();
        handle.reset();
        handle = m_client->proxy->observe<ObserveReq>("/items", request, record, 0);
    });
    expectObservers(1);
    const std::string address = m_served->address;
    m_served->shutdown(std::chrono::milliseconds(0));
    m_served.emplace(address);
    peerIsBack.set_value();
    expectObservers(1);
    m_served->create("a", 1);
    EXPECT_TRUE(m_told.waitFor(2));
    EXPECT_THAT(m_told.lines(), ElementsAre("1 Some error occured!", "0  /items/a=1"));
    m_client->drop(handle);
}

TEST_F(ProxyTree, TellsTheLossOfThePeerOnceAndWorksAgainWhenItIsBack) {
    auto handle = m_client->observe("/items/*", m_told.callback());
    expectObservers(1);
    const std::string address = m_served->address;
    m_served->shutdown(std::chrono::milliseconds(0));
    ASSERT_TRUE(m_told.waitFor(1));
    EXPECT_THAT(m_told.lines(), ElementsAre("1 Some error occured!"));
    Answer answer;
    EXPECT_EQ(m_client->call(UnaryOps::READ, "a", answer).statusCode(), ProtoStatus::UNAVAILABLE);

    m_served.emplace(address);
    ASSERT_TRUE(m_client->proxy->waitForConnected(std::chrono::system_clock::now() +
                                                  std::chrono::seconds(30)));
    EXPECT_TRUE(m_client->call(UnaryOps::READ, "a", answer).isOk());
    EXPECT_EQ(m_served->handlers.allObservers, 0) << "nobody observes again by himself";
    m_client->drop(handle);
    handle = m_client->observe("/items/*", m_told.callback());
    m_served->create("a", 5);
    ASSERT_TRUE(m_told.waitFor(2));
    EXPECT_THAT(m_told.lines(), ElementsAre("1 Some error occured!", "0  /items/a=5"));
}

TEST_F(ProxyTree, GivesUpWaitingAtTheDeadline) {
    const ProxyClient absent(
        grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials()));
    EXPECT_FALSE(absent.proxy->waitForConnected(std::chrono::system_clock::now() +
                                                std::chrono::milliseconds(100)));
}

TEST_F(ProxyTree, WorksInTheSameProcess) {
    const auto gate = std::make_shared<InProcessGate>();
    {
        ProxyClient inside(m_served->server->InProcessChannel(grpc::ChannelArguments()), gate);
        EXPECT_TRUE(inside.proxy->waitForConnected(std::chrono::system_clock::time_point::min()));
        auto handle = inside.observe("/items/*", m_told.callback());
        Answer answer;
        EXPECT_TRUE(inside.call(UnaryOps::CREATE, "a", answer).isOk());
        ASSERT_TRUE(m_told.waitFor(1));
        EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/a=0"));
        gate->close();
        m_served->shutdown(std::chrono::milliseconds(0));
        ASSERT_TRUE(waitUntil([this] {
            const auto texts = m_log.texts();
            return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
                return text.find("isOk = 0") != std::string::npos;
            });
        }));
        inside.drop(handle);  // after the event: both hold the capability's mutex
        EXPECT_EQ(m_told.lines().size(), 1U) << "a stream that ends in the process is not reported";
    }
    EXPECT_EQ(m_told.lines().size(), 1U);
}

TEST_F(ProxyTree, StartsNothingOnAServerOfItsProcessThatHasBeenShutDown) {
    const auto gate = std::make_shared<InProcessGate>();
    ProxyClient inside(m_served->server->InProcessChannel(grpc::ChannelArguments()), gate);
    gate->close();
    m_served->shutdown(std::chrono::milliseconds(0));
    Answer answer;
    const Status status = inside.call(UnaryOps::CREATE, "b", answer);
    EXPECT_EQ(status.statusCode(), ProtoStatus::UNAVAILABLE);
    EXPECT_EQ(status.errorMessage(), "The server has been shut down");
    auto handle = inside.observe("/items/*", m_told.callback());
    inside.drop(handle);
    EXPECT_TRUE(m_told.lines().empty());
}

/// Sends one element twice as soon as an observer arrives.
class OneElementService : public TestService::Service {
public:
    explicit OneElementService(ObsTreeObserveChangeSet element) : m_element(std::move(element)) {}

    grpc::Status observeItems(grpc::ServerContext* /*context*/, const ObserveReq* /*request*/,
                              grpc::ServerWriter<ObsTreeObserveChangeSet>* writer) override {
        writer->Write(m_element);
        writer->Write(m_element);
        return grpc::Status::OK;
    }

private:
    ObsTreeObserveChangeSet m_element;
};

/// Streams messages that are not change sets.
class OtherStream : public OtherStreamService::Service {
    grpc::Status observeItems(grpc::ServerContext* /*context*/, const ObserveReq* /*request*/,
                              grpc::ServerWriter<Item>* writer) override {
        writer->Write(Item());
        writer->Write(Item());
        return grpc::Status::OK;
    }
};

/// Observes the service in the same process.
template <typename ServiceType>
class Observation {
public:
    explicit Observation(grpc::Service& service) {
        grpc::ServerBuilder builder;
        builder.RegisterService(&service);
        m_server = builder.BuildAndStart();
        m_proxy = AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<ServiceType>(
            m_server->InProcessChannel(grpc::ChannelArguments()), std::make_shared<std::mutex>(),
            std::make_shared<InProcessGate>());
        m_handle =
            m_proxy->template observe<ObserveReq>("/items", ObserveReq(), told.callback(), 0);
    }

    Told told;

private:
    std::unique_ptr<grpc::Server> m_server;
    std::shared_ptr<GrpcProxyObserverTree> m_proxy;
    std::any m_handle;
};

class WrongElements : public ::testing::Test {
protected:
    std::vector<std::string> errors() const { return m_log.textsAt(spdlog::level::err); }

    LogCapture m_log{
        "async_grpc_proxy_obs_tree_builder.h::Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder"};
};

TEST_F(WrongElements, ThatAreOkAndHaveATextComeWithoutItAndAreLoggedOnce) {
    ObsTreeObserveChangeSet element;
    element.mutable_observestatus()->set_statuscode(ProtoStatus::OK);
    element.mutable_observestatus()->set_errormessage("text");
    OneElementService service(element);
    Observation<TestService> observation(service);
    ASSERT_TRUE(observation.told.waitFor(2));
    EXPECT_THAT(observation.told.lines(), ElementsAre("0 ", "0 "));
    EXPECT_THAT(errors(), ElementsAre("Element of Hox.ObserverTree.Test.TestService.observeItems "
                                      "without its text, as its status is OK: text"));
}

TEST_F(WrongElements, ThatHaveAnotherTypeAreLeftOutAndLoggedOnce) {
    OtherStream service;
    Observation<OtherStreamService> observation(service);
    ASSERT_TRUE(waitUntil([this] { return !errors().empty(); }));
    EXPECT_THAT(errors(),
                ElementsAre("Element of Hox.ObserverTree.Test.OtherStreamService.observeItems left "
                            "out, of type Hox.ObserverTree.Test.Item"));
    EXPECT_THAT(observation.told.lines(), testing::IsEmpty());
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
