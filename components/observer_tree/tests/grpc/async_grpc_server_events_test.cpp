#include <fmt/format.h>
#include <gmock/gmock.h>

#include "grpc/hand_driven_server.h"
#include "grpc/observe_client.h"
#include "grpc/running_stream.h"
#include "grpc/unary_call.h"
#include "hox/testing/log_capture.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::LogCapture;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using NextStatus = grpc::CompletionQueue::NextStatus;

constexpr auto handlerLogger =
    "async_grpc_server_handler.h::Hox::ObserverTree::AsyncGrpcServerHandler";
constexpr auto notOkText = "Received Not Ok!";

const QueueEvent timeout{NextStatus::TIMEOUT, nullptr, false};
const QueueEvent queueShutdown{NextStatus::SHUTDOWN, nullptr, false};

std::vector<std::string> allMethods() {
    return {"createItem",  "readItem",    "updateItem",   "removeItem",
            "readItemToo", "readMissing", "observeItems", "observeMissing"};
}

std::string pointerText(void* tag) {
    return fmt::format("{}", fmt::ptr(tag));
}

QueueEvent asNotOk(QueueEvent event) {
    event.ok = false;
    return event;
}

/// The log of the handler while an item changes twice: the second write waits for the first one.
std::vector<std::string> writesOfTwoChanges(HandDrivenServer& server) {
    const LogCapture log(handlerLogger);
    createItem(*server.tree, "b", 1);
    createItem(*server.tree, "b", 2);
    return log.texts();
}

TEST(AsyncGrpcServerEvents, EachMethodIsRequestedOnceAtTheStart) {
    HandDrivenServer server;
    for (const auto& method : allMethods()) {
        EXPECT_EQ(server.service->requests(method), 1) << method;
    }
    EXPECT_EQ(server.service->requests("unbound"), 0);
    EXPECT_FALSE(server.hasEvent());
}

TEST(AsyncGrpcServerEvents, UnaryCallsRunTheirOperation) {
    struct Row {
        UnaryMethod method;
        const char* name;
        const char* operation;
        const char* answer;
    };
    const std::vector<Row> rows = {
        {&TestService::Stub::createItem, "createItem", "CREATE", "created x"},
        {&TestService::Stub::readItem, "readItem", "READ", "read x"},
        {&TestService::Stub::updateItem, "updateItem", "UPDATE", "updated x"},
        {&TestService::Stub::removeItem, "removeItem", "REMOVE", "removed x"},
        {&TestService::Stub::readItemToo, "readItemToo", "READ", "read x"},
    };
    HandDrivenServer server;
    for (const auto& row : rows) {
        const LogCapture log(handlerLogger);
        auto call = startCall(*server.stub, row.method, "x");
        auto* const tag = server.processNext();
        const auto tagText = pointerText(tag);
        const std::string operation = row.operation;
        EXPECT_THAT(log.texts(), ElementsAre("0 " + tagText + " Received Call Data on Server Queue",
                                             tagText + " Received " + operation +
                                                 " Call Data, full method name "
                                                 "Hox.ObserverTree.Test.TestService." +
                                                 row.name,
                                             "Finished unary call for operation " + operation,
                                             tagText + " End " + operation + " Call Data"));
        EXPECT_EQ(server.service->requests(row.name), 2) << "requested before the answer has left";

        EXPECT_EQ(server.processNext(), tag);
        EXPECT_THAT(log.texts(), Contains("3 " + tagText + " Received Call Data on Server Queue"));
        EXPECT_EQ(log.texts().back(), tagText + " Received Finished Call Data");
        EXPECT_EQ(server.service->requests(row.name), 2);
        EXPECT_THAT(log.textsAt(spdlog::level::trace), SizeIs(log.texts().size()));

        const auto result = call.get();
        EXPECT_TRUE(result.status.ok());
        EXPECT_EQ(result.answer.text(), row.answer);
    }
}

TEST(AsyncGrpcServerEvents, StatusReachesTheClientExactlyAndWithoutTheMessage) {
    HandDrivenServer server;
    const auto result =
        server.processUntilReady(startCall(*server.stub, &TestService::Stub::readItem, "fail"));
    EXPECT_EQ(result.status.error_code(), grpc::StatusCode::NOT_FOUND);
    EXPECT_EQ(result.status.error_message(), "no such item");
    EXPECT_EQ(result.status.error_details(), "");
    EXPECT_EQ(result.answer.ByteSizeLong(), 0U);
}

TEST(AsyncGrpcServerEvents, HandlerWithoutAMessageAnswersTheDefault) {
    HandDrivenServer server;
    const auto result =
        server.processUntilReady(startCall(*server.stub, &TestService::Stub::readItem, "nothing"));
    EXPECT_TRUE(result.status.ok());
    EXPECT_EQ(result.answer.text(), "");
}

TEST(AsyncGrpcServerEvents, ExceptionIsAnsweredWithCodeNineAndTheMethodStaysCallable) {
    HandDrivenServer server;
    const LogCapture log(handlerLogger);
    for (int round = 0; round < 2; ++round) {
        const auto result =
            server.processUntilReady(startCall(*server.stub, &TestService::Stub::readMissing, "x"));
        EXPECT_EQ(result.status.error_code(), 9);
        EXPECT_THAT(result.status.error_message(),
                    StartsWith("FuncNodeHandlerError: No handler for CRUR operation READ "
                               "registered under /missing\n("));
        EXPECT_EQ(result.status.error_details(), "");
        EXPECT_EQ(log.textsAt(spdlog::level::err).back(),
                  "Finished unary call for operation READ with exception\n" +
                      result.status.error_message());
    }
    EXPECT_THAT(log.textsAt(spdlog::level::err), SizeIs(2));
}

TEST(AsyncGrpcServerEvents, UnboundMethodIsNotImplemented) {
    HandDrivenServer server;
    const auto result =
        server.processUntilReady(startCall(*server.stub, &TestService::Stub::unbound, "x"));
    EXPECT_EQ(result.status.error_code(), grpc::StatusCode::UNIMPLEMENTED);
}

TEST(AsyncGrpcServerEvents, AnswersThatNobodyTakesHoldUpNobody) {
    HandDrivenServer server;
    std::vector<QueueEvent> untaken;
    for (int round = 0; round < 3; ++round) {
        auto call = startCall(*server.stub, &TestService::Stub::readItem, "x");
        server.processNext();
        EXPECT_TRUE(call.get().status.ok());
        untaken.push_back(server.next());  // has been sent, but is not processed
    }
    EXPECT_EQ(server.service->requests("readItem"), 4);
    for (const auto& event : untaken) {
        EXPECT_TRUE(server.process(event));
    }
    EXPECT_EQ(server.service->requests("readItem"), 4);
}

TEST(AsyncGrpcServerEvents, AnswerThatNeverLeftLeavesTheMethodCallable) {
    HandDrivenServer server;
    const LogCapture log(handlerLogger);
    auto call = startCall(*server.stub, &TestService::Stub::readItem, "x");
    auto* const tag = server.processNext();
    EXPECT_EQ(server.service->requests("readItem"), 2);
    EXPECT_TRUE(server.process(asNotOk(server.next())));
    EXPECT_THAT(log.textsAt(spdlog::level::debug), ElementsAre(pointerText(tag) + " " + notOkText));
    EXPECT_EQ(server.service->requests("readItem"), 2);
    call.get();
    EXPECT_TRUE(server.processUntilReady(startCall(*server.stub, &TestService::Stub::readItem, "x"))
                    .status.ok());
}

TEST(AsyncGrpcServerEvents, CallThatComesBackUnusedEndsAllRequests) {
    for (const bool streaming : {false, true}) {
        HandDrivenServer server;
        auto pending = startCall(*server.stub, &TestService::Stub::readItem, "x");
        server.processNext();
        pending.get();

        // The arrival of another call, which the test turns into its return at shutdown.
        std::unique_ptr<ObserveClient> observer;
        std::future<UnaryResult> call;
        if (streaming) {
            const auto finished = server.next();
            observer = std::make_unique<ObserveClient>(*server.stub);
            EXPECT_TRUE(server.process(asNotOk(server.next())));
            EXPECT_TRUE(server.process(finished));
        } else {
            const auto finished = server.next();
            call = startCall(*server.stub, &TestService::Stub::updateItem, "x");
            EXPECT_TRUE(server.process(asNotOk(server.next())));
            EXPECT_TRUE(server.process(finished));
        }
        for (const auto& method : allMethods()) {
            EXPECT_EQ(server.service->requests(method), method == "readItem" ? 2 : 1) << method;
        }
        auto last = startCall(*server.stub, &TestService::Stub::readItem, "x");
        server.processNext();
        EXPECT_TRUE(last.get().status.ok());
        EXPECT_EQ(server.service->requests("readItem"), 2);
        server.destroyHandler();
    }
}

TEST(AsyncGrpcServerEvents, StreamBeginsWithTheSnapshotAndAcceptsTheNextClientAtOnce) {
    HandDrivenServer server;
    createItem(*server.tree, "a", 7);
    const LogCapture log(handlerLogger);
    ObserveClient client(*server.stub, "/items/*");
    auto* const tag = server.processNext();
    const auto tagText = pointerText(tag);
    EXPECT_THAT(log.texts(),
                ElementsAre("0 " + tagText + " Received Call Data on Server Queue",
                            tagText + " Received OBSERVE Call Data, key /items, full method "
                                      "name Hox.ObserverTree.Test.TestService.observeItems"));
    EXPECT_EQ(server.service->requests("observeItems"), 2);
    ASSERT_TRUE(client.read());
    EXPECT_TRUE(client.element.has_observestatus());
    EXPECT_EQ(client.element.observestatus().statuscode(), ProtoStatus::OK);
    EXPECT_EQ(currentCount(client.element, "/items/a"), 7);

    EXPECT_EQ(server.processNext(), tag);
    EXPECT_THAT(log.texts(), Contains("1 " + tagText + " Received Call Data on Server Queue"));
    EXPECT_EQ(log.texts().back(), tagText + " Received STREAMING_TO_CLIENT Call Data");

    ObserveClient second(*server.stub);
    EXPECT_NE(server.processNext(), tag);
    ASSERT_TRUE(second.read());
    EXPECT_EQ(server.handlers.observers, 2);
}

TEST(AsyncGrpcServerEvents, ChangeOnAQuietStreamGoesOutDirectly) {
    HandDrivenServer server;
    RunningStream stream(server);
    const LogCapture log(handlerLogger);
    createItem(*server.tree, "b", 2);
    ASSERT_TRUE(stream.client->read());
    EXPECT_EQ(currentCount(stream.client->element, "/items/b"), 2);
    EXPECT_EQ(currentCount(stream.client->element, "/items/a"), -1);
    EXPECT_THAT(log.texts(), IsEmpty());
    server.processNext();
    EXPECT_FALSE(server.hasEvent());
}

TEST(AsyncGrpcServerEvents, TwelfthPendingChangeLogsTheThresholdAndIsSent) {
    HandDrivenServer server;
    RunningStream stream(server);
    const LogCapture log(handlerLogger);
    for (int count = 1; count <= 11; ++count) {
        createItem(*server.tree, "b", count);
    }
    EXPECT_THAT(log.texts(), AllOf(SizeIs(10), Each("Scheduling delayed observe write")));
    EXPECT_THAT(log.textsAt(spdlog::level::trace), SizeIs(10));

    createItem(*server.tree, "b", 12);
    EXPECT_THAT(log.textsAt(spdlog::level::err),
                ElementsAre("Scheduled delayed observe writes above threshhold"));
    EXPECT_EQ(log.texts().back(), "Scheduling delayed observe write");
    for (int count = 1; count <= 12; ++count) {
        ASSERT_TRUE(stream.client->read());
        EXPECT_EQ(currentCount(stream.client->element, "/items/b"), count);
        EXPECT_EQ(server.processNext(), stream.tag);
    }
    EXPECT_FALSE(server.hasEvent());
    createItem(*server.tree, "b", 13);
    ASSERT_TRUE(stream.client->read());
    EXPECT_THAT(log.textsAt(spdlog::level::err), SizeIs(1)) << "the stream is quiet again";
    server.processNext();
}

TEST(AsyncGrpcServerEvents, SlowReaderGetsSeventyThousandChangesInOrderAndWhole) {
    constexpr int changes = 70000;
    const LogCapture silence(handlerLogger, spdlog::level::off);
    HandDrivenServer server;
    RunningStream stream(server);
    for (int count = 1; count <= changes; ++count) {
        createItem(*server.tree, "b", count);
    }
    for (int count = 1; count <= changes; ++count) {
        ASSERT_TRUE(stream.client->read());
        ASSERT_EQ(currentCount(stream.client->element, "/items/b"), count);
        ASSERT_EQ(server.processNext(), stream.tag);
    }
    EXPECT_FALSE(server.hasEvent());
    createItem(*server.tree, "b", changes + 1);
    ASSERT_TRUE(stream.client->read());
    EXPECT_EQ(currentCount(stream.client->element, "/items/b"), changes + 1);
    server.processNext();
}

TEST(AsyncGrpcServerEvents, MalformedPatternIsAnsweredOnceByTheTree) {
    HandDrivenServer server;
    createItem(*server.tree, "a");
    ObserveClient client(*server.stub, "/a/b*");
    server.processNext();
    ASSERT_TRUE(client.read());
    EXPECT_EQ(client.element.observestatus().statuscode(), ProtoStatus::INVALID_ARGUMENT);
    EXPECT_THAT(client.element.observestatus().errormessage(),
                StartsWith("PathError: More than two *'s in key_pattern component not allowed; "
                           "path = /a/b*. ("));
    EXPECT_EQ(client.element.node_change_map_size(), 0);
    server.processNext();
    EXPECT_EQ(server.handlers.observers, 1);
    EXPECT_THAT(writesOfTwoChanges(server), IsEmpty());
}

TEST(AsyncGrpcServerEvents, UnmatchablePatternNeverReachesTheTree) {
    HandDrivenServer server;
    createItem(*server.tree, "a");
    ObserveClient client(*server.stub, "/items/**/a");
    server.processNext();
    ASSERT_TRUE(client.read());
    EXPECT_EQ(client.element.observestatus().statuscode(), ProtoStatus::INVALID_ARGUMENT);
    EXPECT_EQ(client.element.observestatus().errormessage(),
              "A key_pattern with a literal component behind ** can not be matched; "
              "path = /items/**/a. ");
    EXPECT_EQ(client.element.node_change_map_size(), 0);
    server.processNext();
    EXPECT_EQ(server.handlers.allObservers, 0);
    EXPECT_EQ(server.service->requests("observeItems"), 2);
    createItem(*server.tree, "b");
    EXPECT_FALSE(server.hasEvent());

    client.context.TryCancel();
    server.processNext();
    EXPECT_EQ(server.handlers.observers, 0);
}

TEST(AsyncGrpcServerEvents, CancelOfAQuietStreamEndsTheObservationAtOnce) {
    HandDrivenServer server;
    RunningStream stream(server);
    ASSERT_EQ(server.handlers.observers, 1);
    const LogCapture log(handlerLogger);
    stream.client->context.TryCancel();
    auto* const cleanupTag = server.processNext();
    EXPECT_NE(cleanupTag, stream.tag);
    EXPECT_THAT(log.texts(),
                ElementsAre("2 " + pointerText(cleanupTag) + " Received Call Data on Server Queue",
                            "Received FINISHED_STREAMING_CLEANUP call data resetting RAII handle"));
    EXPECT_EQ(server.handlers.observers, 0);
    EXPECT_THAT(writesOfTwoChanges(server), IsEmpty());
    EXPECT_THAT(log.texts(), SizeIs(2));
    EXPECT_EQ(server.service->requests("observeItems"), 2);
}

TEST(AsyncGrpcServerEvents, ClientThatVanishesWithAWriteInFlightLeavesNothingBehind) {
    for (const bool noticeFirst : {true, false}) {
        HandDrivenServer server;
        createItem(*server.tree, "a");
        const LogCapture log(handlerLogger);
        ObserveClient client(*server.stub);
        auto* const tag = server.processNext();
        createItem(*server.tree, "b");  // queued after the snapshot
        EXPECT_FALSE(server.hasEvent());
        client.context.TryCancel();
        auto first = server.next();
        auto second = server.next();
        if ((first.tag == tag) == noticeFirst) {
            std::swap(first, second);
        }
        server.process(first);
        EXPECT_EQ(server.handlers.observers, 0);
        server.process(second);
        EXPECT_THAT(log.textsAt(spdlog::level::debug),
                    ElementsAre(pointerText(tag) + " " + notOkText));
        EXPECT_EQ(server.service->requests("observeItems"), 2);
        createItem(*server.tree, "c");
        EXPECT_FALSE(server.hasEvent());
    }
}

TEST(AsyncGrpcServerEvents, FailedWriteEndsTheCallAndRequestsNothing) {
    HandDrivenServer server;
    RunningStream stream(server);
    createItem(*server.tree, "b");
    ASSERT_TRUE(stream.client->read());
    server.process(asNotOk(server.next()));
    EXPECT_EQ(server.handlers.observers, 0);
    EXPECT_EQ(server.service->requests("observeItems"), 2);
    stream.client->context.TryCancel();
    server.processNext();  // the notification of a stream that has already ended
    EXPECT_FALSE(server.hasEvent());
}

TEST(AsyncGrpcServerEvents, NoticeThatIsNotOkEndsTheObservationToo) {
    HandDrivenServer server;
    RunningStream stream(server);
    stream.client->context.TryCancel();
    server.process(asNotOk(server.next()));
    EXPECT_EQ(server.handlers.observers, 0);
    for (const auto& method : {"createItem", "readItem"}) {
        EXPECT_EQ(server.service->requests(method), 1);
    }
    EXPECT_TRUE(server.processUntilReady(startCall(*server.stub, &TestService::Stub::readItem, "x"))
                    .status.ok());
    EXPECT_EQ(server.service->requests("readItem"), 2) << "the server is not shutting down";
}

TEST(AsyncGrpcServerEvents, WriteThatLeftAfterTheNoticeIsTheLastOfItsCall) {
    HandDrivenServer server;
    RunningStream stream(server);
    createItem(*server.tree, "b");
    createItem(*server.tree, "c");
    ASSERT_TRUE(stream.client->read());
    const auto written = server.next();
    ASSERT_EQ(written.tag, stream.tag);
    stream.client->context.TryCancel();
    server.processNext();
    EXPECT_EQ(server.handlers.observers, 0);
    EXPECT_TRUE(server.process(written));
    EXPECT_FALSE(server.hasEvent());
}

TEST(AsyncGrpcServerEvents, TimeoutEndsTheLoopOnlyInShutdown) {
    HandDrivenServer server;
    EXPECT_TRUE(server.process(timeout));
    const LogCapture log(handlerLogger);
    EXPECT_FALSE(server.process(queueShutdown));
    EXPECT_THAT(log.textsAt(spdlog::level::debug), ElementsAre("Shutdown"));
    EXPECT_FALSE(server.process(timeout));
}

TEST(AsyncGrpcServerEvents, EveryEventInShutdownOnlyFreesItsCall) {
    HandDrivenServer server;
    RunningStream stream(server);
    auto finishing = startCall(*server.stub, &TestService::Stub::readItem, "x");
    server.processNext();
    finishing.get();
    const auto finished = server.next();
    auto arriving = startCall(*server.stub, &TestService::Stub::createItem, "late");
    const auto arrived = server.next();
    ObserveClient lateObserver(*server.stub);
    const auto arrivedObserver = server.next();
    createItem(*server.tree, "b");
    ASSERT_TRUE(stream.client->read());
    const auto written = server.next();

    const LogCapture log(handlerLogger);
    server.process(queueShutdown);
    for (const auto& event : {finished, arrived, arrivedObserver, written}) {
        EXPECT_TRUE(server.process(event));
    }
    EXPECT_THAT(log.texts(), ElementsAre("Shutdown"));
    EXPECT_EQ(server.service->requests("readItem"), 2);
    EXPECT_EQ(server.service->requests("createItem"), 1);
    EXPECT_EQ(server.service->requests("observeItems"), 2);
    EXPECT_EQ(server.handlers.observers, 0);
    EXPECT_EQ(server.tree->dumpDataTree().find("late"), std::string::npos);
    server.destroyHandler();
    EXPECT_FALSE(arriving.get().status.ok());
}

TEST(AsyncGrpcServerEvents, AnswerThatNeverLeftInShutdownRequestsNothing) {
    HandDrivenServer server;
    auto call = startCall(*server.stub, &TestService::Stub::readItem, "x");
    server.processNext();
    call.get();
    const auto finished = server.next();
    server.process(queueShutdown);
    EXPECT_TRUE(server.process(asNotOk(finished)));
    EXPECT_EQ(server.service->requests("readItem"), 2);
}

TEST(AsyncGrpcServerEvents, ChangesInShutdownAreNotWritten) {
    HandDrivenServer server;
    RunningStream stream(server);
    server.process(queueShutdown);
    EXPECT_THAT(writesOfTwoChanges(server), IsEmpty());
}

TEST(AsyncGrpcServerEvents, HandlerGoesWithAllItsCallsWhereItHasNoThread) {
    HandDrivenServer server;
    RunningStream stream(server);
    auto unanswered = startCall(*server.stub, &TestService::Stub::readItem, "x");
    server.processNext();
    unanswered.get();
    createItem(*server.tree, "b");
    ASSERT_EQ(server.handlers.observers, 1);
    server.destroyHandler();
    EXPECT_EQ(server.handlers.observers, 0);
    createItem(*server.tree, "c");
}

TEST(AsyncGrpcServerEvents, TimeoutLetsGoOfTheLastChange) {
    HandDrivenServer server;
    RunningStream stream(server);
    auto message = std::make_shared<const DataTreeVal>(Item());
    const std::weak_ptr<const DataTreeVal> watched = message;
    server.tree->registerUnaryOpHandler<UnaryOps::UPDATE, Item, Answer>(
        "/other", [&message](const Item& /*item*/, DataTree& data) {
            data.insert_or_assign("/other/x", message);
            data.erase("/other/x");
            return UnaryHandlerReturnType<Answer>{std::make_unique<Answer>(), Status()};
        });
    server.tree->callApiOp<UnaryOps::UPDATE, Item, Answer>("/other", Item());
    message.reset();
    ASSERT_TRUE(stream.client->read());
    server.processNext();
    EXPECT_FALSE(watched.expired());
    server.process(timeout);
    EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
