// The handler with its thread, over real connections.
#include "hox/observer_tree/grpc/async_grpc_server_handler.h"

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>
#include <grpcpp/generic/generic_stub.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <thread>

#include "grpc/hand_driven_server.h"
#include "grpc/observe_client.h"
#include "grpc/served_tree.h"
#include "grpc/unary_call.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::LogCapture;
using Hox::Testing::waitUntil;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;

constexpr auto handlerLogger =
    "async_grpc_server_handler.h::Hox::ObserverTree::AsyncGrpcServerHandler";
constexpr int boundMethods = 8;

std::unique_ptr<AsyncGrpcServerHandler> handlerWithoutServer(grpc::ServerBuilder& builder) {
    return std::make_unique<AsyncGrpcServerHandler>(builder.AddCompletionQueue(true),
                                                    std::make_shared<std::mutex>());
}

/// Starts `count` observers of all keys.
std::vector<std::unique_ptr<ObserveClient>> observe(TestService::Stub& stub, std::size_t count) {
    std::vector<std::unique_ptr<ObserveClient>> observers(count);
    for (auto& observer : observers) {
        observer = std::make_unique<ObserveClient>(stub);
    }
    return observers;
}

/// Sends arbitrary bytes as a request of createItem.
grpc::Status sendBytes(const std::shared_ptr<grpc::Channel>& channel, const std::string& bytes) {
    grpc::GenericStub stub(channel);
    grpc::ClientContext context;
    grpc::CompletionQueue queue;
    const grpc::Slice slice(bytes);
    const auto call =
        stub.PrepareUnaryCall(&context, "/Hox.ObserverTree.Test.TestService/createItem",
                              grpc::ByteBuffer(&slice, 1), &queue);
    call->StartCall();
    grpc::ByteBuffer response;
    grpc::Status status;
    call->Finish(&response, &status, &status);
    void* tag = nullptr;
    bool ok = false;
    queue.Next(&tag, &ok);
    return status;
}

/// Whether a thread holds the mutex; this may be the calling thread.
bool isLocked(std::mutex& mutex) {
    return std::async(std::launch::async,
                      [&mutex] {
                          return !std::unique_lock<std::mutex>(mutex, std::try_to_lock).owns_lock();
                      })
        .get();
}

TEST(AsyncGrpcServerHandler, TellsOfItsLifeAtDebugLevel) {
    const LogCapture log(handlerLogger, spdlog::level::debug);
    { const ServedTree<TestService> served; }
    const auto texts = log.texts();
    ASSERT_EQ(texts.size(), boundMethods + 3U);
    EXPECT_THAT(std::vector<std::string>(texts.begin() + 1, texts.end() - 2),
                Each(EndsWith(" Received Not Ok!")));
    EXPECT_EQ(texts.front(), "Async gRPC server thread started!");
    EXPECT_EQ(texts[texts.size() - 2], "Shutdown");
    EXPECT_EQ(texts.back(), "AsyncGrpcServerHandler Thread Exited ");
    EXPECT_EQ(log.textsAt(spdlog::level::debug).size(), texts.size());
}

TEST(AsyncGrpcServerHandler, HoldsTheCapabilityMutexInHandlersAndWhileObservationsEnd) {
    std::atomic<int> locked{0};
    std::atomic<int> unlocked{0};
    {
        ServedTree<TestService> served;
        const auto note = [&locked, &unlocked, mutex = served.mutex] {
            ++(isLocked(*mutex) ? locked : unlocked);
        };
        served.tree->registerUnaryOpHandler<UnaryOps::READ, Item, Answer>(
            "/missing", [note](const Item& /*item*/, DataTree& /*data*/) {
                note();
                return UnaryHandlerReturnType<Answer>{std::make_unique<Answer>(), Status()};
            });
        served.tree->registerObserverGoneHandler<ObserveReq>(
            "/items", [note](const ObserveReq& /*request*/, const ObserverCallback& /*callback*/) {
                note();
            });
        const auto stub = served.newStub();
        EXPECT_TRUE(startCall(*stub, &TestService::Stub::readMissing, "x").get().status.ok());
        EXPECT_EQ(locked, 1);

        const auto observers = observe(*stub, 2);
        ASSERT_TRUE(waitUntil([&] { return served.handlers.observers == 2; }));
        observers.front()->context.TryCancel();
        EXPECT_TRUE(waitUntil([&] { return locked == 2; }));
        served.shutdown(std::chrono::milliseconds(0));
        EXPECT_TRUE(waitUntil([&] { return locked == 3; }));
    }
    EXPECT_EQ(locked, 3);
    EXPECT_EQ(unlocked, 0);
}

TEST(AsyncGrpcServerHandler, LogsNothingFromInfoUpwardsInOrdinaryService) {
    const LogCapture log(handlerLogger, spdlog::level::info);
    {
        ServedTree<TestService> served;
        const auto stub = served.newStub();
        ObserveClient client(*stub);
        startCall(*stub, &TestService::Stub::createItem, "x").get();
        ASSERT_TRUE(client.read());
    }
    EXPECT_THAT(log.texts(), ElementsAre());
}

TEST(AsyncGrpcServerHandler, GoesQuietlyWhenItNeverStarted) {
    ::testing::internal::CaptureStderr();
    {
        grpc::ServerBuilder builder;
        const auto handler = handlerWithoutServer(builder);
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

/// Whether a thread of this process waits for the mutex.
bool isAwaited(std::mutex& mutex) {
    std::ostringstream wait;
    wait << SYS_futex << " " << static_cast<void*>(mutex.native_handle()) << " ";
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::any_of(begin(threads), end(threads), [&wait](const auto& thread) {
        std::string call;
        std::getline(std::ifstream(thread.path() / "syscall"), call);
        return call.rfind(wait.str(), 0) == 0;
    });
}

TEST(AsyncGrpcServerHandler, FreesWhatComesBetweenItsLastLookAtTheQueueAndTheEnd) {
    const LogCapture log(handlerLogger, spdlog::level::trace);
    HandDrivenServer served;
    served.handler->startCompletionQueueThread();
    const ObserveClient client(*served.stub);
    ASSERT_TRUE(waitUntil([&] { return served.handlers.observers == 1; }));

    // The thread finds nothing in the queue and then must wait for the mutex.
    std::unique_lock<std::mutex> lock(*served.mutex);
    ASSERT_TRUE(waitUntil([&] { return isAwaited(*served.mutex); }));
    createItem(*served.tree, "a");
    const auto destroyed = std::async(std::launch::async, [&served] { served.destroyHandler(); });
    // Changes are queued after the first one until the handler is destroyed.
    ASSERT_TRUE(waitUntil([&] {
        const auto before = log.texts().size();
        createItem(*served.tree, "a");
        return log.texts().size() == before;
    }));
    lock.unlock();
    destroyed.wait();
    EXPECT_EQ(served.handlers.observers, 0);
    // The queue reports its shutdown only when it is empty.
    EXPECT_TRUE(log.containsInOrder({"Shutdown", "AsyncGrpcServerHandler Thread Exited "}));
}

TEST(AsyncGrpcServerHandler, HoldsTheCapabilityMutexWhileTheLastObservationsEnd) {
    HandDrivenServer served;
    std::atomic<int> locked{0};
    served.tree->registerObserverGoneHandler<ObserveReq>(
        "/items", [&locked, mutex = served.mutex](const ObserveReq&, const ObserverCallback&) {
            locked += isLocked(*mutex) ? 1 : 100;
        });
    served.handler->startCompletionQueueThread();
    const ObserveClient busy(*served.stub);
    const ObserveClient idle(*served.stub, "/none");  // gets no event at the end
    ASSERT_TRUE(waitUntil([&] { return served.handlers.allObservers == 2; }));

    // The end of the stream is reported to a handler that is shutting down.
    std::unique_lock<std::mutex> lock(*served.mutex);
    ASSERT_TRUE(waitUntil([&] { return isAwaited(*served.mutex); }));
    const auto destroyed = std::async(std::launch::async, [&served] { served.destroyHandler(); });
    ASSERT_TRUE(waitUntil([&] {
        createItem(*served.tree, "a");
        const LogCapture log(handlerLogger, spdlog::level::trace);
        createItem(*served.tree, "a");
        return log.texts().empty();
    }));
    lock.unlock();
    destroyed.wait();
    EXPECT_EQ(locked, 2);
}

TEST(AsyncGrpcServerHandler, OpenStreamsEndWithTheirObservations) {
    auto served = std::make_unique<ServedTree<TestService>>();
    served->create("a");
    const auto stub = served->newStub();
    ObserveClient reading(*stub);
    ObserveClient idle(*stub);
    ASSERT_TRUE(reading.read());
    ASSERT_TRUE(waitUntil([&] { return served->handlers.observers == 2; }));
    served->create("b");
    served->shutdown(std::chrono::milliseconds(0));
    served->create("c");
    EXPECT_TRUE(waitUntil([&] { return served->handlers.observers == 0; }));
    served.reset();
    while (reading.read()) {
    }
    EXPECT_FALSE(reading.reader->Finish().ok());
}

TEST(AsyncGrpcServerHandler, StreamsGoOnInTheGraceTimeAndNothingSpins) {
    const LogCapture log(handlerLogger, spdlog::level::debug);
    ServedTree<TestService> served;
    const auto stub = served.newStub();
    auto client = std::make_unique<ObserveClient>(*stub);
    ASSERT_TRUE(waitUntil([&] { return served.handlers.observers == 1; }));

    // Lasts as long as the stream.
    const auto shutdown =
        std::async(std::launch::async, [&served] { served.shutdown(std::chrono::seconds(30)); });
    const auto returned = [&] {
        int count = 0;
        for (const auto& text : log.texts()) {
            count += text.find("Received Not Ok!") != std::string::npos ? 1 : 0;
        }
        return count;
    };
    ASSERT_TRUE(waitUntil([&] { return returned() == boundMethods; }));
    served.create("late", 5);
    ASSERT_TRUE(client->read());
    EXPECT_EQ(currentCount(client->element, "/items/late"), 5);
    client->context.TryCancel();
    shutdown.wait();
    EXPECT_EQ(returned(), boundMethods) << "something was requested again";
}

TEST(AsyncGrpcServerHandler, ClientWhoseConnectionBreaksEndsItsObservation) {
    ServedTree<TestService> served;
    served.create("a");
    {
        auto stub = served.newStub();
        ObserveClient client(*stub);
        ASSERT_TRUE(client.read());
        ASSERT_TRUE(waitUntil([&] { return served.handlers.observers == 1; }));
        client.context.TryCancel();
    }
    EXPECT_TRUE(waitUntil([&] { return served.handlers.observers == 0; }));
    served.create("b");
    const auto stub = served.newStub();
    ObserveClient next(*stub);
    ASSERT_TRUE(next.read());
    EXPECT_EQ(next.element.node_change_map_size(), 2);
}

TEST(AsyncGrpcServerHandler, RequestsThatCanNotBeReadLeaveTheMethodCallable) {
    ServedTree<TestService> served;
    const auto channel = served.newChannel();
    const auto garbage = sendBytes(channel, "\xff\xff\xff\xff");
    EXPECT_EQ(garbage.error_code(), grpc::StatusCode::INTERNAL);
    const auto tooLarge = sendBytes(channel, std::string(5U << 20U, 'x'));
    EXPECT_EQ(tooLarge.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_EQ(startCall(*served.newStub(), &TestService::Stub::createItem, "x").get().answer.text(),
              "created x");
}

TEST(AsyncGrpcServerHandler, ManyClientsAndOtherThreadsOfTheCapabilityExcludeEachOther) {
    constexpr int changes = 100;
    constexpr int writers = 3;
    const LogCapture silence(handlerLogger, spdlog::level::off);
    ServedTree<TestService> served;
    const auto stub = served.newStub();
    const auto observers = observe(*stub, 4);
    ASSERT_TRUE(waitUntil([&] { return served.handlers.observers == 4; }));

    std::vector<std::thread> threads;
    threads.reserve(writers + observers.size());
    for (int writer = 0; writer < writers; ++writer) {
        threads.emplace_back([&, writer] {
            for (int count = 1; count <= changes; ++count) {
                if (writer == 0) {
                    served.create("w0", count);
                } else {
                    grpc::ClientContext context;
                    Item item;
                    item.set_name("w" + std::to_string(writer));
                    item.set_count(count);
                    Answer answer;
                    EXPECT_TRUE(stub->createItem(&context, item, &answer).ok());
                }
            }
        });
    }
    for (const auto& observer : observers) {
        threads.emplace_back([&observer] {
            std::map<std::string, int> last;
            for (int received = 0; received < writers * changes; ++received) {
                ASSERT_TRUE(observer->read());
                ASSERT_EQ(observer->element.node_change_map_size(), 1);
                const auto key = observer->element.node_change_map().begin()->first;
                EXPECT_EQ(currentCount(observer->element, key), ++last[key]);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(AsyncGrpcServerHandler, TwoHundredObserversGetTheSameChange) {
    ServedTree<TestService> served;
    const auto stub = served.newStub();
    const auto observers = observe(*stub, 200);
    ASSERT_TRUE(waitUntil([&] { return served.handlers.observers == 200; }));
    served.create("a", 3);
    for (const auto& observer : observers) {
        ASSERT_TRUE(observer->read());
        EXPECT_EQ(currentCount(observer->element, "/items/a"), 3);
    }
}

/// A method like createItem, but with another operation number. Its pool is not destroyed.
const google::protobuf::MethodDescriptor& methodOfType(int type) {
    static google::protobuf::DescriptorPool pool(
        google::protobuf::DescriptorPool::generated_pool());
    google::protobuf::FileDescriptorProto file;
    file.set_name("type_" + std::to_string(type) + ".proto");
    file.set_package("Hox.ObserverTree.Test.Type" + std::to_string(type));
    file.add_dependency(Item::descriptor()->file()->name());
    auto& service = *file.add_service();
    service.set_name("Service");
    auto& method = *service.add_method();
    method.set_name("createItem");
    method.set_input_type(".Hox.ObserverTree.Test.Item");
    method.set_output_type(".Hox.ObserverTree.Test.Answer");
    auto& options = *method.mutable_options()->MutableExtension(obs_tree_option);
    options.set_key("/items");
    options.set_type(static_cast<ObsTreeOptions::func_type>(type));
    return *pool.BuildFile(file)->service(0)->method(0);
}

/// Serves createItem with that operation number and calls it.
UnaryResult callMethodOfType(int type) {
    grpc::ServerBuilder builder;
    ObserverTree tree;
    const auto service = std::make_shared<GrpcWrapperService<TestService::Service>>();
    const auto handler = handlerWithoutServer(builder);
    handler->addMethod(methodOfType(type), service, &tree);
    service->markMethodAsynchronous(0);
    builder.RegisterService(service.get());
    const auto server = builder.BuildAndStart();
    handler->startCompletionQueueThread();
    const auto stub = TestService::NewStub(server->InProcessChannel(grpc::ChannelArguments()));
    auto result = startCall(*stub, &TestService::Stub::createItem, "x").get();
    server->Shutdown(std::chrono::system_clock::now());
    return result;
}

class AsyncGrpcServerHandlerDeathTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(AsyncGrpcServerHandlerDeathTest, CallOfAnInvalidTypeFailsTheAssertion) {
    for (const int type : {0, 6, 1000}) {
        EXPECT_DEATH(callMethodOfType(type), "Assertion failed: \\[false\\]") << type;
    }
}

TEST_F(AsyncGrpcServerHandlerDeathTest, CallOfAnInvalidTypeIsDroppedWhereAssertionsDoNotAbort) {
    EXPECT_EXIT(
        {
            Hox::CppUtil::getAssertion().setAbortOnFailure(false);
            std::exit(callMethodOfType(0).status.ok() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "Assertion failed: \\[false\\]");
}

TEST_F(AsyncGrpcServerHandlerDeathTest, ObservingAnAddressWithoutANodeEndsTheProcess) {
    EXPECT_DEATH(
        {
            ServedTree<TestService> served;
            const auto stub = served.newStub();
            grpc::ClientContext context;
            const auto reader = stub->observeMissing(&context, ObserveReq());
            ObsTreeObserveChangeSet element;
            reader->Read(&element);
        },
        "No observe handler registered under \"/missing/observe\"");
}

TEST_F(AsyncGrpcServerHandlerDeathTest, ThreadStartsOnlyOnce) {
    EXPECT_DEATH(
        {
            ServedTree<TestService> served;
            served.handler->startCompletionQueueThread();
        },
        "Assertion failed: \\[!m_completionQueueThread\\]");
}

TEST_F(AsyncGrpcServerHandlerDeathTest, MethodNeedsItsService) {
    EXPECT_DEATH(
        {
            grpc::ServerBuilder builder;
            ObserverTree tree;
            const auto handler = handlerWithoutServer(builder);
            handler->addMethod(methodOfType(1), nullptr, &tree);
            handler->requestFirstCalls();
        },
        "Assertion failed: \\[asyncMethodDesc->reqWrapperService.get\\(\\)\\]");
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
