// Texts and messages that are too long for the wire.
#include <gmock/gmock.h>

#include "grpc/hand_driven_server.h"
#include "grpc/observe_client.h"
#include "grpc/running_stream.h"
#include "grpc/unary_call.h"
#include "hox/testing/log_capture.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::LogCapture;
using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr auto handlerLogger =
    "async_grpc_server_handler.h::Hox::ObserverTree::AsyncGrpcServerHandler";

TEST(AsyncGrpcServerLimits, TextsForClientsAreCut) {
    HandDrivenServer server;
    server.tree->registerUnaryOpHandler<UnaryOps::READ, Item, Answer>(
        "/missing", [](const Item& item, DataTree& /*data*/) {
            return UnaryHandlerReturnType<Answer>{std::make_unique<Answer>(),
                                                  Status(ProtoStatus::NOT_FOUND, item.name())};
        });
    const auto result = server.processUntilReady(
        startCall(*server.stub, &TestService::Stub::readMissing, std::string(9000, 'x')));
    EXPECT_EQ(result.status.error_code(), grpc::StatusCode::NOT_FOUND);
    EXPECT_EQ(result.status.error_message(), std::string(2000, 'x'));
}

TEST(AsyncGrpcServerLimits, TextsInElementsAreCut) {
    HandDrivenServer server;
    ObserveClient client(*server.stub, "/" + std::string(9000, 'x') + "*");
    server.processNext();
    ASSERT_TRUE(client.read());
    EXPECT_EQ(client.element.observestatus().statuscode(), ProtoStatus::INVALID_ARGUMENT);
    EXPECT_THAT(client.element.observestatus().errormessage(), SizeIs(2000));
    server.processNext();
}

TEST(AsyncGrpcServerLimits, TooLargeAnswerIsRefusedWithOneErrorLine) {
    HandDrivenServer server(100);
    const LogCapture log(handlerLogger, spdlog::level::info);
    const auto result = server.processUntilReady(
        startCall(*server.stub, &TestService::Stub::readItem, std::string(200, 'x')));
    EXPECT_EQ(result.status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_EQ(result.status.error_message(), "The answer is too large to be sent: 208 bytes");
    EXPECT_THAT(log.textsAt(spdlog::level::err),
                ElementsAre("Hox.ObserverTree.Test.TestService.readItem: "
                            "The answer is too large to be sent: 208 bytes"));
    EXPECT_TRUE(server.processUntilReady(startCall(*server.stub, &TestService::Stub::readItem, "x"))
                    .status.ok());
}

TEST(AsyncGrpcServerLimits, TooLargeElementEndsItsStreamAfterWhatWasQueued) {
    HandDrivenServer server(250);
    RunningStream stream(server);
    const LogCapture log(handlerLogger, spdlog::level::info);
    createItem(*server.tree, "b", 1);
    createItem(*server.tree, "b", 2);
    createItem(*server.tree, std::string(300, 'x'), 3);
    createItem(*server.tree, "b", 4);
    createItem(*server.tree, std::string(300, 'x'), 5);
    EXPECT_THAT(log.textsAt(spdlog::level::err), SizeIs(1));
    for (const int count : {1, 2}) {
        ASSERT_TRUE(stream.client->read());
        EXPECT_EQ(currentCount(stream.client->element, "/items/b"), count);
        server.processNext();
    }
    EXPECT_FALSE(stream.client->read());
    const auto status = stream.client->reader->Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_THAT(status.error_message(), StartsWith("The change set is too large to be sent: "));
    EXPECT_EQ(server.handlers.observers, 1);
    server.processNext();
    server.processNext();
    EXPECT_EQ(server.handlers.observers, 0);
    EXPECT_FALSE(server.hasEvent());
}

TEST(AsyncGrpcServerLimits, TooLargeSnapshotEndsItsStream) {
    HandDrivenServer server(250);
    createItem(*server.tree, std::string(300, 'x'));
    ObserveClient client(*server.stub);
    server.processNext();
    EXPECT_FALSE(client.read());
    EXPECT_EQ(client.reader->Finish().error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    ObserveClient other(*server.stub, "/items/none");
    while (server.handlers.observers != 1 || server.service->requests("observeItems") != 3) {
        server.processNext();
    }
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
