#include "hox/observer_tree/grpc/async_grpc_client_handler.h"

#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "grpc/told.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"
#include "obstree.pb.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using Handle = AsyncGrpcClientHandler::CallMethodRaiiHandleType;
using Hox::Testing::LogCapture;
using Hox::Testing::waitUntil;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::MatchesRegex;

/// Streams as the pattern of the request says: "stay" sends one element and lasts until it is
/// cancelled, "end" and "fail" return after one element, "flood" sends until it is cancelled.
class ScriptedService : public TestService::Service {
public:
    grpc::Status observeItems(grpc::ServerContext* context, const ObserveReq* request,
                              grpc::ServerWriter<ObsTreeObserveChangeSet>* writer) override {
        ++m_running;
        auto status = run(*context, request->key_pattern(), *writer);
        --m_running;
        return status;
    }

    int running() const { return m_running; }

private:
    static grpc::Status run(const grpc::ServerContext& context, const std::string& pattern,
                            grpc::ServerWriter<ObsTreeObserveChangeSet>& writer) {
        ObsTreeObserveChangeSet element;
        (*element.mutable_node_change_map())["/" + pattern];
        writer.Write(element);
        if (pattern == "fail") {
            return {grpc::StatusCode::INTERNAL, "failed"};
        }
        while (pattern == "flood" && writer.Write(element)) {
        }
        while (pattern == "stay" && !context.IsCancelled()) {
            std::this_thread::yield();
        }
        return grpc::Status::OK;
    }

    std::atomic<int> m_running{0};
};

class ClientHandlerFixture {
protected:
    explicit ClientHandlerFixture(bool inProcess) : m_inProcess(inProcess) {
        startServer();
        m_channel = newChannel();
        m_handler->startThread();
    }
    ~ClientHandlerFixture() {
        m_handler.reset();
        shutdownServer();
    }

    /// At the same address each time.
    void startServer() {
        grpc::ServerBuilder builder;
        int port = 0;
        builder.AddListeningPort(m_address, grpc::InsecureServerCredentials(), &port);
        builder.RegisterService(&m_service);
        m_server = builder.BuildAndStart();
        m_address = "127.0.0.1:" + std::to_string(port);
    }

    /// Tries often to connect to a server that is down.
    std::shared_ptr<grpc::Channel> newChannel() const {
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
        arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 100);
        return m_inProcess ? m_server->InProcessChannel(arguments)
                           : grpc::CreateCustomChannel(
                                 m_address, grpc::InsecureChannelCredentials(), arguments);
    }

    Handle start(const std::string& pattern,
                 const AsyncGrpcClientHandler::CallBackMethodType& callback,
                 const std::shared_ptr<grpc::Channel>& channel = nullptr) const {
        ObserveReq request;
        request.set_key_pattern(pattern);
        return m_handler->callMethodServerStreaming(
            request, observeItems(), channel ? channel : m_channel, m_inProcess, callback);
    }

    /// Waits until the handler has finished the event that it logged last.
    void passEvent() const { const std::lock_guard<std::mutex> lock(*m_mutex); }

    void shutdownServer() { m_server->Shutdown(std::chrono::system_clock::now()); }

    LogCapture m_log{"AsyncGrpcClientHandler"};
    bool m_inProcess;
    ScriptedService m_service;
    std::unique_ptr<grpc::Server> m_server;
    std::string m_address = "127.0.0.1:0";
    std::shared_ptr<grpc::Channel> m_channel;
    std::shared_ptr<std::mutex> m_mutex = std::make_shared<std::mutex>();
    std::shared_ptr<AsyncGrpcClientHandler> m_handler =
        std::make_shared<AsyncGrpcClientHandler>(m_mutex);
    Told m_told;
};

constexpr const char* callGone = "CompletionQueue returned not ok! StatusCode 0 ";

bool sawTheEndsOfCalls(const LogCapture& log, std::ptrdiff_t count) {
    return waitUntil([&] {
        const auto texts = log.texts();
        return std::count_if(texts.begin(), texts.end(), [](const std::string& text) {
                   return text.find("isOk = 0 StatusCode 0 requestState = ") != std::string::npos;
               }) >= count;
    });
}

/// A port at which a connection is made, but nobody answers.
class SilentListener {
public:
    SilentListener()
        : m_socket(
              LinuxCppUtil::ownFileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))) {
        EXPECT_EQ(::listen(*m_socket, 1), 0);  // at a free port of all addresses
    }

    std::shared_ptr<grpc::Channel> newChannel() const {
        sockaddr_in name{};
        socklen_t size = sizeof(name);
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the interface of sockets
        EXPECT_EQ(::getsockname(*m_socket, reinterpret_cast<sockaddr*>(&name), &size), 0);
        return grpc::CreateChannel("127.0.0.1:" + std::to_string(ntohs(name.sin_port)),
                                   grpc::InsecureChannelCredentials());
    }

private:
    LinuxCppUtil::OwnedFileDescriptor m_socket;
};

/// Over a connection and in-process.
class ClientHandler : public ClientHandlerFixture, public ::testing::TestWithParam<bool> {
protected:
    ClientHandler() : ClientHandlerFixture(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Channels, ClientHandler, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "InProcess" : "Remote"; });

TEST_P(ClientHandler, EndsACallWithoutAWordWhenItsHandleIsDropped) {
    auto handle = start("stay", m_told.elementCallback());
    ASSERT_TRUE(m_told.waitFor(1));
    handle.reset();
    EXPECT_TRUE(waitUntil([this] { return m_service.running() == 0; }));
    EXPECT_TRUE(waitUntil([this] { return m_log.contains(callGone); }));
    EXPECT_THAT(m_told.lines(), ElementsAre("/stay"));
}

/// Connects once: a thread of gRPC would make the next attempt, and ThreadSanitizer does not see
/// the synchronisation of gRPC.
std::shared_ptr<grpc::Channel> channelToNobody() {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 60000);
    return grpc::CreateCustomChannel("127.0.0.1:1", grpc::InsecureChannelCredentials(), arguments);
}

TEST_P(ClientHandler, LeavesCallsAloneWhoseChannelIsNotLost) {
    std::vector<Handle> handles;
    handles.push_back(start("end", m_told.elementCallback()));
    handles.push_back(start("fail", m_told.elementCallback()));
    if (m_inProcess) {
        handles.push_back(start("stay", m_told.elementCallback()));
        ASSERT_TRUE(m_told.waitFor(3));
        shutdownServer();
    } else {
        handles.push_back(start("nobody", m_told.elementCallback(), channelToNobody()));
    }
    ASSERT_TRUE(sawTheEndsOfCalls(m_log, m_inProcess ? 3 : 2));
    passEvent();
    const std::size_t elements = m_inProcess ? 3 : 2;
    // The loss of a connection may become known a little after the end of its calls.
    EXPECT_FALSE(waitUntil([&] { return m_told.lines().size() > elements; },
                           std::chrono::milliseconds(1200)));
    EXPECT_THAT(m_told.lines(), IsSupersetOf({"/end", "/fail"}));
    EXPECT_EQ(m_told.lines().size(), elements);
    handles.clear();
    EXPECT_FALSE(m_log.contains(callGone));
    EXPECT_TRUE(m_log.contains("Finishing streaming call, RAII style"));
    EXPECT_TRUE(waitUntil([this] { return m_told.elementCallbacks() == 0; }));
}

TEST_P(ClientHandler, KeepsACallThatTheServerEndedAsLongAsItsHandle) {
    auto handle = start("end", m_told.elementCallback());
    ASSERT_TRUE(sawTheEndsOfCalls(m_log, 1));
    passEvent();
    EXPECT_EQ(m_told.elementCallbacks(), 1);
    handle.reset();
    EXPECT_TRUE(waitUntil([this] { return m_told.elementCallbacks() == 0; }));
}

TEST_P(ClientHandler, FreesEveryCallWhoseHandleIsDroppedAboutWhenItEnds) {
    for (int round = 0; round < 400; ++round) {
        std::promise<void> told;
        auto handle = start("end", [&told, record = m_told.elementCallback()](
                                       std::unique_ptr<google::protobuf::Message> message,
                                       const grpc::Status& status) {
            record(std::move(message), status);
            told.set_value();
        });
        told.get_future().wait();
        // The end comes directly after the element: a little later in each round.
        const auto dropTime =
            std::chrono::steady_clock::now() + std::chrono::microseconds(round % 100);
        while (std::chrono::steady_clock::now() < dropTime) {
        }
        handle.reset();
    }
    EXPECT_TRUE(waitUntil([this] { return m_told.elementCallbacks() == 0; }));
    EXPECT_THAT(m_told.lines(), Each("/end"));
}

TEST_P(ClientHandler, HandlesOfEndedCallsMayOutliveIt) {
    const auto handle = start("end", m_told.elementCallback());
    ASSERT_TRUE(sawTheEndsOfCalls(m_log, 1));
    m_handler.reset();
    EXPECT_EQ(m_told.elementCallbacks(), 0);
    EXPECT_THAT(m_told.lines(), ElementsAre("/end"));
}

TEST_P(ClientHandler, EndsRunningCallsWithoutAWordWhenItIsStopped) {
    const auto handle = start("stay", m_told.elementCallback());
    ASSERT_TRUE(m_told.waitFor(1));
    m_handler->stop();
    EXPECT_EQ(m_told.elementCallbacks(), 0);
    EXPECT_THAT(m_told.lines(), ElementsAre("/stay"));
}

TEST_P(ClientHandler, TellsTheLossOfAConnectionButNotOfItsOwnProcess) {
    const auto handle = start("stay", m_told.elementCallback());
    ASSERT_TRUE(m_told.waitFor(1));
    shutdownServer();
    ASSERT_TRUE(sawTheEndsOfCalls(m_log, 1));
    if (m_inProcess) {
        passEvent();
        EXPECT_THAT(m_told.lines(), ElementsAre("/stay"));
        EXPECT_FALSE(m_log.contains(callGone));
    } else {
        ASSERT_TRUE(m_told.waitFor(2));
        EXPECT_THAT(m_told.lines(), ElementsAre("/stay", "1 Some error occured!"));
        EXPECT_TRUE(m_log.contains(callGone));
    }
}

/// Over a connection, which can be lost.
class RemoteClientHandler : public ClientHandlerFixture, public ::testing::Test {
protected:
    RemoteClientHandler() : ClientHandlerFixture(false) {}
};

TEST_F(RemoteClientHandler, KeepsLaterCallsWhenHandlesOfLostOnesAreDropped) {
    constexpr int callCount = 20;
    const auto channel = newChannel();
    Told later;
    std::vector<Handle> kept;
    std::vector<Handle> lost;
    std::atomic<int> elements{0};
    for (int i = 0; i < callCount; ++i) {
        lost.push_back(start("stay", [&](const std::unique_ptr<google::protobuf::Message>& message,
                                         const grpc::Status&) {
            if (message) {
                ++elements;
            } else {
                // May get the address of the record that was freed before.
                kept.push_back(start("later", later.elementCallback(), channel));
            }
        }));
    }
    ASSERT_TRUE(waitUntil([&] { return elements == callCount; }));
    shutdownServer();
    ASSERT_TRUE(sawTheEndsOfCalls(m_log, callCount));
    passEvent();
    lost.clear();
    EXPECT_EQ(later.elementCallbacks(), callCount);
    EXPECT_THAT(later.lines(), IsEmpty());
}

TEST_P(ClientHandler, NeverTellsAnythingOnceTheHandleHasBeenDropped) {
    for (int round = 0; round < 50; ++round) {
        std::atomic<bool> isDropped{false};
        std::atomic<int> calls{0};
        std::atomic<int> tooLate{0};
        auto handle = start(
            "flood", [&](const std::unique_ptr<google::protobuf::Message>&, const grpc::Status&) {
                tooLate += isDropped ? 1 : 0;
                ++calls;
            });
        ASSERT_TRUE(waitUntil([&] { return calls > round % 3; }));
        handle.reset();
        isDropped = true;
        EXPECT_TRUE(waitUntil([this] { return m_service.running() == 0; }));
        EXPECT_EQ(tooLate, 0);
    }
}

TEST_P(ClientHandler, DropsAMessageThatArrivedAheadOfTheEndOfItsHandle) {
    // The capability's mutex holds the handler's thread at the event of the message.
    std::unique_lock<std::mutex> lock(*m_mutex);
    auto handle = start("stay", m_told.elementCallback());
    ASSERT_TRUE(waitUntil([this] { return m_service.running() == 1; }));
    handle.reset();
    lock.unlock();
    EXPECT_TRUE(waitUntil([this] { return m_log.contains(callGone); }));
    EXPECT_THAT(m_told.lines(), IsEmpty());
}

TEST_P(ClientHandler, CallsBackUnderTheCapabilitysMutex) {
    std::promise<bool> isFree;
    const auto handle =
        start("stay", [&](const std::unique_ptr<google::protobuf::Message>&, const grpc::Status&) {
            isFree.set_value(std::async(std::launch::async, [this] {
                                 return std::unique_lock(*m_mutex, std::try_to_lock).owns_lock();
                             }).get());
        });
    EXPECT_FALSE(isFree.get_future().get());
}

TEST_P(ClientHandler, StartsNothingOnceItGoes) {
    std::promise<void> entered;
    std::promise<void> refused;
    auto* const handler = m_handler.get();
    const auto handle =
        start("stay", [&](const std::unique_ptr<google::protobuf::Message>&, const grpc::Status&) {
            entered.set_value();
            while (const auto other =
                       handler->callMethodServerStreaming(ObserveReq(), observeItems(), m_channel,
                                                          m_inProcess, m_told.elementCallback())) {
                std::this_thread::yield();
            }
            refused.set_value();
        });
    entered.get_future().wait();
    m_handler.reset();
    EXPECT_EQ(refused.get_future().wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_THAT(m_told.lines(), IsEmpty());
}

TEST_P(ClientHandler, WaitsForACallbackThatRunsWhileTheHandlerGoesElsewhere) {
    std::promise<void> entered;
    std::promise<void> mayLeave;
    std::atomic<bool> hasLeft{false};
    auto handle =
        start("stay", [&](const std::unique_ptr<google::protobuf::Message>&, const grpc::Status&) {
            entered.set_value();
            mayLeave.get_future().wait();
            hasLeft = true;
        });
    entered.get_future().wait();
    const std::weak_ptr<AsyncGrpcClientHandler> handler = m_handler;
    auto gone = std::async(std::launch::async, [this] { m_handler.reset(); });
    ASSERT_TRUE(waitUntil([&] { return handler.expired(); }));
    auto dropped = std::async(std::launch::async, [&] {
        handle.reset();
        return hasLeft.load();
    });
    EXPECT_EQ(dropped.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    mayLeave.set_value();
    EXPECT_TRUE(dropped.get());
    gone.get();
}

TEST_F(RemoteClientHandler, StartsACallAsSoonAsThereIsAPeer) {
    shutdownServer();
    const auto handle = start("stay", m_told.elementCallback(), newChannel());
    EXPECT_FALSE(
        waitUntil([this] { return !m_told.lines().empty(); }, std::chrono::milliseconds(300)));
    startServer();
    ASSERT_TRUE(m_told.waitFor(1));
    EXPECT_THAT(m_told.lines(), ElementsAre("/stay"));
}

TEST_F(RemoteClientHandler, FreesACallThatWaitsForItsConnectionWithItsHandle) {
    const SilentListener nobodyAnswers;
    auto handle = start("stay", m_told.elementCallback(), nobodyAnswers.newChannel());
    EXPECT_EQ(m_told.elementCallbacks(), 1);
    handle.reset();
    EXPECT_TRUE(waitUntil([this] { return m_told.elementCallbacks() == 0; }));
    EXPECT_THAT(m_told.lines(), IsEmpty());
}

TEST_F(RemoteClientHandler, MayEndWhileACallWaitsForItsConnection) {
    const SilentListener nobodyAnswers;
    const auto handle = start("stay", m_told.elementCallback(), nobodyAnswers.newChannel());
    m_handler->stop();
    EXPECT_EQ(m_told.elementCallbacks(), 0);
    EXPECT_THAT(m_told.lines(), IsEmpty());
}

TEST_F(RemoteClientHandler, LogsThatNothingMoreArrivesFromAPeerThatHasEndedItsStream) {
    const auto handle = start("end", m_told.elementCallback());
    ASSERT_TRUE(waitUntil([this] { return !m_log.textsAt(spdlog::level::warn).empty(); }));
    EXPECT_THAT(m_log.textsAt(spdlog::level::warn),
                ElementsAre(MatchesRegex(".*observeItems of ipv4:127.0.0.1:[0-9]+ has ended, but "
                                         "its connection remains: nothing more arrives")));
    EXPECT_THAT(m_told.lines(), ElementsAre("/end"));
}

TEST_F(RemoteClientHandler, TellsALossIfItWasHeldUpForTooLongToKnow) {
    std::unique_lock<std::mutex> lock(*m_mutex);
    const auto handle = start("end", m_told.elementCallback());
    // Until all events of the watch have expired.
    EXPECT_FALSE(waitUntil([] { return false; }, std::chrono::milliseconds(600)));
    lock.unlock();
    ASSERT_TRUE(m_told.waitFor(2));
    EXPECT_THAT(m_told.lines(), ElementsAre("/end", "1 Some error occured!"));
}

TEST_F(RemoteClientHandler, FreesACallThatItHasLeftAloneBesideARunningOne) {
    Told ended;
    const auto running = start("stay", m_told.elementCallback());
    auto handle = start("end", ended.elementCallback());
    ASSERT_TRUE(waitUntil([this] { return !m_log.textsAt(spdlog::level::warn).empty(); }));
    handle.reset();
    EXPECT_TRUE(waitUntil([&] { return ended.elementCallbacks() == 0; }));
    EXPECT_THAT(m_told.lines(), ElementsAre("/stay"));
}

TEST_P(ClientHandler, ServesAnyNumberOfChannelsInTurn) {
    for (int round = 0; round < 20; ++round) {
        Told told;
        const auto handle = start("stay", told.elementCallback(), newChannel());
        EXPECT_TRUE(told.waitFor(1));
    }
}

TEST_P(ClientHandler, StartsAndEndsCallsOnAllThreads) {
    constexpr int threadCount = 4;
    constexpr int rounds = 25;
    std::atomic<int> told{0};
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < rounds; ++round) {
                std::atomic<int> calls{0};
                auto handle = start(
                    i % 2 == 0 ? "flood" : "end",
                    [&](const std::unique_ptr<google::protobuf::Message>&, const grpc::Status&) {
                        ++calls;
                        ++told;
                    });
                EXPECT_TRUE(waitUntil([&] { return calls > 0; }));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_GE(told, threadCount * rounds);
    EXPECT_TRUE(waitUntil([this] { return m_service.running() == 0; }));
}

TEST_P(ClientHandler, LogsTheLifeOfACall) {
    const std::string address = "0x[0-9a-f]+";
    const std::string event = address + " Received Call Data on Client Queue ";
    {
        auto handle = start("stay", m_told.elementCallback());
        ASSERT_TRUE(m_told.waitFor(1));
        handle.reset();
        ASSERT_TRUE(waitUntil([this] { return m_log.contains(callGone); }));
    }
    m_handler.reset();
    EXPECT_THAT(
        m_log.textsAt(spdlog::level::trace),
        ElementsAre(MatchesRegex(event + "isOk = 1 StatusCode 0 requestState = 0"),
                    MatchesRegex(address + " Waiting for server streaming, data has value 1"),
                    MatchesRegex(event + "isOk = 1 StatusCode 0 requestState = 1"),
                    MatchesRegex(address + " Server Data Ready for streaming"),
                    MatchesRegex(event + "isOk = 0 StatusCode 0 requestState = 1")));
    const auto texts = m_log.textsAt(spdlog::level::debug);
    EXPECT_THAT(texts, Contains(MatchesRegex("Calling Streaming Method, callData object " +
                                             address + " created")));
    EXPECT_THAT(texts, Contains("Finishing streaming call, RAII style"));
    EXPECT_THAT(texts.back(), MatchesRegex("AsyncGrpcClientHandler Thread Exited isOk [01] "
                                           "isShuttingdown 1"));
}

TEST(ClientHandlerThread, TellsItsStartAtDebugLevel) {
    const LogCapture log("AsyncGrpcClientHandler", spdlog::level::debug);
    const auto handler = std::make_shared<AsyncGrpcClientHandler>(std::make_shared<std::mutex>());
    EXPECT_THAT(log.texts(), IsEmpty());
    handler->startThread();
    EXPECT_TRUE(waitUntil([&log] { return !log.texts().empty(); }));
    EXPECT_THAT(log.texts(), ElementsAre(MatchesRegex("[0-9]+:[0-9]+ AsyncGrpcClientHandler Thread "
                                                      "Started")));
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
