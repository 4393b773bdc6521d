#include "hox/observer_tree/proxy_observer_tree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <optional>
#include <thread>

#include "grpc/observe_client.h"
#include "grpc/served_tree.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/observer_tree/func_node_handler_error.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/reserved_port.h"
#include "hox/testing/wait_until.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::LogCapture;
using Hox::Testing::waitUntil;
using ::testing::ElementsAre;
using ::testing::StartsWith;

/// What an observer was told, from whatever thread.
class Told {
public:
    void add(const std::string& line) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
    }
    std::vector<std::string> lines() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    bool waitFor(std::size_t count) const {
        return waitUntil([&] { return lines().size() >= count; });
    }

    /// "<code> <text> <key>=<count>..."
    ObserverCallback callback() {
        return [this](const ChangeSetType& changes, const Status& status) {
            std::string line = std::to_string(status.statusCode()) + " " + status.errorMessage();
            for (const auto& [key, keyChanges] : changes) {
                const auto& current = keyChanges.at(0).current;
                line += " " + key + "=" +
                        (current ? std::to_string(current->get<Item>().count()) : "gone");
            }
            add(line);
        };
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

/// A proxy with its capability's mutex, used as a capability does.
class Client {
public:
    explicit Client(const std::shared_ptr<grpc::Channel>& channel,
                    const std::shared_ptr<InProcessGate>& gate = nullptr)
        : proxy(AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<TestService>(channel, mutex,
                                                                               gate)) {}

    std::any observe(const std::string& pattern, ObserverCallback callback) {
        std::any handle;
        observe(handle, pattern, std::move(callback));
        return handle;
    }

    /// For a callback that uses its own handle: it finds it in place.
    void observe(std::any& handle, const std::string& pattern, ObserverCallback callback) {
        ObserveReq request;
        request.set_key_pattern(pattern);
        const std::lock_guard<std::mutex> lock(*mutex);
        handle = proxy->observe<ObserveReq>("/items", request, std::move(callback), 0);
    }

    void drop(std::any& handle) {
        const std::lock_guard<std::mutex> lock(*mutex);
        handle.reset();
    }

    Status call(UnaryOps operation, const std::string& name, Answer& answer) const {
        Item item;
        item.set_name(name);
        return proxy->callUnary("/items", operation, item, answer);
    }

    std::shared_ptr<std::mutex> mutex = std::make_shared<std::mutex>();
    std::shared_ptr<GrpcProxyObserverTree> proxy;
};

class ProxyTree : public ::testing::Test {
protected:
    explicit ProxyTree(bool inProcess = false) {
        if (inProcess) {
            m_client.emplace(m_served->server->InProcessChannel(grpc::ChannelArguments()),
                             std::make_shared<InProcessGate>());
        } else {
            m_client.emplace(m_served->newChannel());
        }
    }

    void expectObservers(int count) {
        EXPECT_TRUE(waitUntil([&] { return m_served->handlers.observers == count; }))
            << m_served->handlers.observers << " observers";
    }

    LogCapture m_log{"AsyncGrpcClientHandler"};
    /// Nobody else gets it while the served tree is away.
    const Hox::Testing::ReservedPort m_port;
    std::optional<ServedTree<TestService>> m_served{std::in_place, "127.0.0.1:" + m_port.text()};
    Told m_told;
    std::optional<Client> m_client;
};

/// Over a connection and in the process.
class ProxyTreeHandles : public ProxyTree, public ::testing::WithParamInterface<bool> {
protected:
    ProxyTreeHandles() : ProxyTree(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Channels, ProxyTreeHandles, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "InProcess" : "Remote"; });

TEST_F(ProxyTree, CallsUnaryOperationsByKey) {
    Answer answer;
    EXPECT_TRUE(m_client->call(UnaryOps::CREATE, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "created a");
    EXPECT_TRUE(m_client->call(UnaryOps::UPDATE, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "updated a");
    EXPECT_TRUE(m_client->call(UnaryOps::READ, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "read a");
    EXPECT_TRUE(m_client->call(UnaryOps::REMOVE, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "removed a");
}

TEST_F(ProxyTree, PassesCodeAndTextOfAFailureOn) {
    Answer answer;
    const Status status = m_client->call(UnaryOps::READ, "fail", answer);
    EXPECT_EQ(status.statusCode(), ProtoStatus::NOT_FOUND);
    EXPECT_EQ(status.errorMessage(), "no such item");
}

TEST_F(ProxyTree, KnowsNoOperationThatTheServiceLacks) {
    Answer answer;
    try {
        m_client->proxy->callUnary("/items/other", UnaryOps::READ, Item(), answer);
        FAIL();
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "map::at");
    }
}

TEST_F(ProxyTree, DeliversTheSnapshotAndThenEveryChange) {
    m_served->create("a", 1);
    const auto handle = m_client->observe("/items/*", m_told.callback());
    ASSERT_TRUE(m_told.waitFor(1));
    m_served->create("b", 2);
    m_served->create("a", 3);
    ASSERT_TRUE(m_told.waitFor(3));
    EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/a=1", "0  /items/b=2", "0  /items/a=3"));
}

TEST_F(ProxyTree, LetsTheServerApplyThePattern) {
    const auto handle = m_client->observe("/items/a*", m_told.callback());
    ASSERT_TRUE(m_told.waitFor(1));
    EXPECT_THAT(m_told.lines().at(0),
                StartsWith("3 PathError: More than two *'s in key_pattern component not allowed"));
}

TEST_F(ProxyTree, OpensAStreamForEachObserver) {
    Told other;
    auto first = m_client->observe("/items/a", m_told.callback());
    auto second = m_client->observe("/items/b", other.callback());
    expectObservers(2);
    m_served->create("a", 1);
    m_served->create("b", 2);
    ASSERT_TRUE(m_told.waitFor(1) && other.waitFor(1));
    EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/a=1"));
    EXPECT_THAT(other.lines(), ElementsAre("0  /items/b=2"));
    m_client->drop(first);
    expectObservers(1);
    m_client->drop(second);
    expectObservers(0);
}

TEST_F(ProxyTree, IsSilentOnceTheHandleHasBeenDropped) {
    auto handle = m_client->observe("/items/*", m_told.callback());
    expectObservers(1);
    m_client->drop(handle);
    expectObservers(0);
    m_served->create("a", 1);
    Told later;
    const auto second = m_client->observe("/items/*", later.callback());
    ASSERT_TRUE(later.waitFor(1));
    EXPECT_TRUE(m_told.lines().empty());
}

TEST_P(ProxyTreeHandles, MayBeDroppedInTheCallbackOfTheirOwnObserver) {
    std::any handle;
    auto record = m_told.callback();
    m_client->observe(handle, "/items/*", [&](const ChangeSetType& changes, const Status& status) {
        handle.reset();
        record(changes, status);
    });
    m_served->create("a", 1);
    ASSERT_TRUE(m_told.waitFor(1));
    expectObservers(0);
    m_served->create("b", 2);
    EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/a=1"));
}

TEST_P(ProxyTreeHandles, WaitForACallbackThatRunsWhileTheyAreDroppedElsewhere) {
    std::promise<void> entered;
    std::promise<void> mayLeave;
    std::atomic<bool> hasLeft{false};
    auto handle = m_client->observe("/items/*", [&](const ChangeSetType&, const Status&) {
        entered.set_value();
        mayLeave.get_future().wait();
        hasLeft = true;
    });
    m_served->create("a", 1);
    entered.get_future().wait();
    // Without the capability's mutex on purpose: the call's own mutex has to suffice.
    std::promise<void> started;
    auto dropped = std::async(std::launch::async, [&] {
        started.set_value();
        handle.reset();
        return hasLeft.load();
    });
    started.get_future().wait();
    EXPECT_EQ(dropped.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    mayLeave.set_value();
    EXPECT_TRUE(dropped.get());
}

TEST_P(ProxyTreeHandles, MayBeDroppedElsewhereWhileTheirCallbackObservesAnew) {
    std::promise<void> entered;
    // The hook for leaving observers is the proxy's own; it says when it runs.
    const LogCapture log(
        "async_grpc_proxy_obs_tree_builder.h::Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder",
        spdlog::level::debug);
    const auto isLeaving = [&log] {
        return log.contains(
            "Register Observer Stop, delete RAII handle from map will trigger server unregister");
    };
    std::any next;
    auto record = m_told.callback();
    auto handle = m_client->observe("/items/a", [&](const ChangeSetType&, const Status&) {
        entered.set_value();
        EXPECT_TRUE(waitUntil(isLeaving));
        ObserveReq request;
        request.set_key_pattern("/items/b");
        next = m_client->proxy->observe<ObserveReq>("/items", request, record, 0);
    });
    m_served->create("a", 1);
    entered.get_future().wait();
    // The end of the call waits for the callback, which needs the proxy's observers meanwhile.
    handle.reset();
    m_served->create("b", 2);
    ASSERT_TRUE(m_told.waitFor(1));
    EXPECT_THAT(m_told.lines(), ElementsAre("0  /items/b=2"));
    m_client->drop(next);
}

TEST_P(ProxyTreeHandles, MayDieAsLastCopiesInAMapThatIsErasedUnderALock) {
    constexpr int handleCount = 20;
    std::mutex mapMutex;
    std::map<int, std::any> handles;
    std::atomic<int> calls{0};
    for (int i = 0; i < handleCount; ++i) {
        handles[i] =
            m_client->observe("/items/*", [&](const ChangeSetType&, const Status&) { ++calls; });
    }
    expectObservers(handleCount);
    std::atomic<bool> isOver{false};
    auto changes = std::async(std::launch::async, [&] {
        for (int count = 0; !isOver; ++count) {
            m_served->create("a", count);
        }
    });
    ASSERT_TRUE(waitUntil([&] { return calls > 0; }));
    const auto erase = [&](int first) {
        for (int i = first; i < handleCount; i += 2) {
            const std::lock_guard<std::mutex> lock(mapMutex);
            handles.erase(i);
        }
    };
    auto other = std::async(std::launch::async, [&] { erase(0); });
    erase(1);
    other.get();
    const int callsUntilThen = calls;
    isOver = true;
    changes.get();
    expectObservers(0);
    EXPECT_EQ(calls, callsUntilThen);
}

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

/// A capability that serves a tree and writes into it what it observes elsewhere.
TEST_F(ProxyTree, ChangesFromItsThreadNeverStallAServedStream) {
    constexpr int changes = 300;
    ServedTree<TestService> relay;
    const auto proxy = AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<TestService>(
        m_served->newChannel(), relay.mutex, nullptr);
    std::any handle;
    {
        ObserveReq request;
        request.set_key_pattern("/items/*");
        const std::lock_guard<std::mutex> lock(*relay.mutex);
        handle = proxy->observe<ObserveReq>(
            "/items", request,
            [&relay](const ChangeSetType& observed, const Status&) {
                for (const auto& [key, keyChanges] : observed) {
                    createItem(*relay.tree, "relayed",
                               keyChanges.at(0).current->get<Item>().count());
                }
            },
            0);
    }
    expectObservers(1);
    const auto stub = relay.newStub();
    ObserveClient relayed(*stub, "/items/relayed");
    ObserveClient own(*stub, "/items/own");
    ASSERT_TRUE(waitUntil([&] { return relay.handlers.observers == 2; }));
    auto ownChanges = std::async(std::launch::async, [&relay] {
        for (int count = 1; count <= changes; ++count) {
            relay.create("own", count);
        }
    });
    auto observed = std::async(std::launch::async, [this] {
        for (int count = 1; count <= changes; ++count) {
            m_served->create("a", count);
        }
    });
    const auto expectAll = [](ObserveClient& observer, const std::string& key) {
        for (int count = 1; count <= changes; ++count) {
            ASSERT_TRUE(observer.read());
            ASSERT_EQ(currentCount(observer.element, key), count);
        }
    };
    auto reader = std::async(std::launch::async, [&] { expectAll(own, "/items/own"); });
    expectAll(relayed, "/items/relayed");
    reader.get();
    ownChanges.get();
    observed.get();
    const std::lock_guard<std::mutex> lock(*relay.mutex);
    handle.reset();
}

TEST_F(ProxyTree, LogsWhenItsObserversComeAndGo) {
    const LogCapture log;
    auto handle = m_client->observe("/items/*", m_told.callback());
    m_client->drop(handle);
    EXPECT_TRUE(log.containsInOrder(
        {"Register Observer Start, add RAII handle to map and call observe on server",
         "Register Observer Stop, delete RAII handle from map will trigger server unregister",
         "Finishing streaming call, RAII style"}));
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
    const Client absent(grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials()));
    EXPECT_FALSE(absent.proxy->waitForConnected(std::chrono::system_clock::now() +
                                                std::chrono::milliseconds(100)));
}

TEST_F(ProxyTree, CancelsItsStreamsWhenItGoes) {
    const auto handle = m_client->observe("/items/*", m_told.callback());
    expectObservers(1);
    m_client.reset();
    expectObservers(0);
    EXPECT_TRUE(m_told.lines().empty());
}

TEST_P(ProxyTreeHandles, MayBeDroppedInTheirCallbackWhileTheProxyGoes) {
    std::any handle;
    std::promise<void> entered;
    m_client->observe(handle, "/items/*", [&](const ChangeSetType&, const Status&) {
        entered.set_value();
        EXPECT_TRUE(
            waitUntil([this] { return m_log.contains("Finishing streaming call, RAII style"); }));
        handle.reset();
        m_told.add("dropped");
    });
    m_served->create("a", 1);
    entered.get_future().wait();
    m_client.reset();
    EXPECT_THAT(m_told.lines(), ElementsAre("dropped"));
    expectObservers(0);
}

TEST_F(ProxyTree, WorksInTheSameProcess) {
    const auto gate = std::make_shared<InProcessGate>();
    {
        Client inside(m_served->server->InProcessChannel(grpc::ChannelArguments()), gate);
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
        inside.drop(handle);  // behind the event: both hold the capability's mutex
        EXPECT_EQ(m_told.lines().size(), 1U) << "a stream that ends in the process is not reported";
    }
    EXPECT_EQ(m_told.lines().size(), 1U);
}

TEST_F(ProxyTree, StartsNothingOnAServerOfItsProcessThatHasBeenShutDown) {
    const auto gate = std::make_shared<InProcessGate>();
    Client inside(m_served->server->InProcessChannel(grpc::ChannelArguments()), gate);
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

TEST(ProxyTreeBuilder, OffersNothingToObserveWithoutAnObserveMethod) {
    const auto mutex = std::make_shared<std::mutex>();
    const auto channel = grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials());
    const auto proxy =
        AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<PlainService>(channel, mutex, nullptr);
    EXPECT_THROW(proxy->observe<ObserveReq>("/items", ObserveReq(), nullptr, 0),
                 FuncNodeHandlerError);
}

/// Tells apart the two methods that are bound to one address and operation.
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
    const Client client(server->InProcessChannel(grpc::ChannelArguments()),
                        std::make_shared<InProcessGate>());
    Answer answer;
    EXPECT_TRUE(client.call(UnaryOps::READ, "a", answer).isOk());
    EXPECT_EQ(answer.text(), "last");
}

TEST(ProxyTreeBuilder, RefusesAMethodWithoutAValidOperation) {
    const auto mutex = std::make_shared<std::mutex>();
    const auto channel = grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials());
    const std::lock_guard<std::mutex> lock(*mutex);  // as the frame holds it in its hooks
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

TEST(AsyncGrpcClientHandlerDeathTest, RefusesUnaryMethodsAndASecondThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto* service = google::protobuf::DescriptorPool::generated_pool()->FindServiceByName(
        TestService::service_full_name());
    const auto channel = grpc::CreateChannel("127.0.0.1:1", grpc::InsecureChannelCredentials());
    EXPECT_DEATH(
        std::make_shared<AsyncGrpcClientHandler>(std::make_shared<std::mutex>())
            ->callMethodServerStreaming(Item(), *service->FindMethodByName("readItem"), channel,
                                        false, nullptr),
        "The async API should no longer be used for unary calls. Use blocking gRPC directly.");
    EXPECT_DEATH(
        {
            const auto handler =
                std::make_shared<AsyncGrpcClientHandler>(std::make_shared<std::mutex>());
            handler->startThread();
            handler->startThread();
        },
        "Assertion failed: \\[!m_thread\\]");
    EXPECT_DEATH(
        {
            const Client client(channel);
            client.proxy->removeRemoteObservation(nullptr);
        },
        "Assertion failed: \\[m_observerMap.erase\\(inMsg\\)\\]");
}

/// Sends one element as soon as it is observed.
class OneElementService : public TestService::Service {
public:
    explicit OneElementService(ObsTreeObserveChangeSet element) : m_element(std::move(element)) {}

    grpc::Status observeItems(grpc::ServerContext* /*context*/, const ObserveReq* /*request*/,
                              grpc::ServerWriter<ObsTreeObserveChangeSet>* writer) override {
        writer->Write(m_element);
        return grpc::Status::OK;
    }

private:
    ObsTreeObserveChangeSet m_element;
};

/// Streams something that is no change set.
class OtherStream : public OtherStreamService::Service {
    grpc::Status observeItems(grpc::ServerContext* /*context*/, const ObserveReq* /*request*/,
                              grpc::ServerWriter<Item>* writer) override {
        writer->Write(Item());
        return grpc::Status::OK;
    }
};

/// Observes the service, which ends the process.
template <typename ServiceType>
void observeToTheEnd(grpc::Service& service) {
    grpc::ServerBuilder builder;
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    const auto proxy = AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<ServiceType>(
        server->InProcessChannel(grpc::ChannelArguments()), std::make_shared<std::mutex>(),
        std::make_shared<InProcessGate>());
    std::promise<void> called;
    const auto handle = proxy->template observe<ObserveReq>(
        "/items", ObserveReq(),
        [&called](const ChangeSetType&, const Status&) { called.set_value(); }, 0);
    called.get_future().wait();
}

TEST(ProxyTreeDeathTest, EndsAtAnOkElementWithAText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ObsTreeObserveChangeSet element;
    element.mutable_observestatus()->set_statuscode(ProtoStatus::OK);
    element.mutable_observestatus()->set_errormessage("text");
    OneElementService service(element);
    EXPECT_DEATH(observeToTheEnd<TestService>(service),
                 "Assertion failed: \\[statusCode != ProtoStatus::OK \\|\\| "
                 "errorMessage.size\\(\\) == 0\\]");
}

TEST(ProxyTreeDeathTest, EndsAtAStreamOfAnotherType) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    OtherStream service;
    EXPECT_DEATH(observeToTheEnd<OtherStreamService>(service), "std::bad_cast");
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
