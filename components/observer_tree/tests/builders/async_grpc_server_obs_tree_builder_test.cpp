#include "hox/observer_tree/builders/async_grpc_server_obs_tree_builder.h"

#include <gmock/gmock.h>

#include "grpc/served_tree.h"
#include "grpc/unary_call.h"
#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/testing/log_capture.h"

namespace Hox::ObserverTree::Test {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

/// Looks like a generated service, but no descriptor pool knows it.
struct UnknownService {
    class Service : public grpc::Service {};
    // NOLINTNEXTLINE(readability-identifier-naming): the name that generated code has.
    static const char* service_full_name() { return "Hox.ObserverTree.Test.UnknownService"; }
};

TEST(AsyncGRPCServerObsTreeBuilder, BindsAServiceToTheTree) {
    ServedTree<TestService> served;
    const auto stub = served.newStub();
    EXPECT_EQ(startCall(*stub, &TestService::Stub::updateItem, "x").get().answer.text(),
              "updated x");
    EXPECT_EQ(startCall(*stub, &TestService::Stub::readItem, "x").get().answer.text(), "read x");
}

TEST(AsyncGRPCServerObsTreeBuilder, BindsTwoMethodsOfOneKeyAndTypeToOneHandler) {
    ServedTree<TestService> served;
    const auto stub = served.newStub();
    EXPECT_EQ(startCall(*stub, &TestService::Stub::readItem, "x").get().answer.text(), "read x");
    EXPECT_EQ(startCall(*stub, &TestService::Stub::readItemToo, "x").get().answer.text(), "read x");
}

TEST(AsyncGRPCServerObsTreeBuilder, LeavesAnUnboundMethodUnimplemented) {
    ServedTree<TestService> served;
    EXPECT_EQ(
        startCall(*served.newStub(), &TestService::Stub::unbound, "x").get().status.error_code(),
        grpc::StatusCode::UNIMPLEMENTED);
}

TEST(AsyncGRPCServerObsTreeBuilder, RegistersAServiceWithoutBindingsAllTheSame) {
    ServedTree<PlainService> served;
    const auto stub = served.newStub();
    grpc::ClientContext firstContext;
    Answer answer;
    EXPECT_EQ(stub->first(&firstContext, Item(), &answer).error_code(),
              grpc::StatusCode::UNIMPLEMENTED);
    grpc::ClientContext secondContext;
    const auto reader = stub->second(&secondContext, ObserveReq());
    ObsTreeObserveChangeSet element;
    EXPECT_FALSE(reader->Read(&element));
    EXPECT_EQ(reader->Finish().error_code(), grpc::StatusCode::UNIMPLEMENTED);
}

TEST(AsyncGRPCServerObsTreeBuilder, BuildsABindingWithoutAValidType) {
    ServedTree<WrongTypeService> served;
    EXPECT_NE(served.newStub(), nullptr);
}

TEST(AsyncGRPCServerObsTreeBuilder, TracesEachBinding) {
    const Hox::Testing::LogCapture log(
        "async_grpc_server_obs_tree_builder.h::Hox::ObserverTree::AsyncGRPCServerObsTreeBuilder");
    { const ServedTree<WrongTypeService> served; }
    EXPECT_THAT(log.textsAt(spdlog::level::trace),
                ElementsAre("Bound method Hox.ObserverTree.Test.WrongTypeService.reserved to key "
                            "/items, type 0"));
}

TEST(AsyncGRPCServerObsTreeBuilder, RefusesAServiceThatThePoolDoesNotKnow) {
    grpc::ServerBuilder serverBuilder;
    AsyncGRPCServerObsTreeBuilder builder(&serverBuilder, std::make_shared<std::mutex>());
    ObserverTree tree;
    try {
        builder.buildServerObsTree<UnknownService>(tree);
        FAIL() << "nothing thrown";
    } catch (const ObsTreeBuildError& error) {
        EXPECT_THAT(error.what(),
                    StartsWith("ObsTree Build Error: Unable to find service "
                               "Hox.ObserverTree.Test.UnknownService in descriptor pool("));
    }
}

TEST(AsyncGRPCServerObsTreeBuilder, HandsOutOneHandlerOfItsOwn) {
    grpc::ServerBuilder serverBuilder;
    const AsyncGRPCServerObsTreeBuilder first(&serverBuilder, std::make_shared<std::mutex>());
    const AsyncGRPCServerObsTreeBuilder second(&serverBuilder, std::make_shared<std::mutex>());
    EXPECT_NE(first.asyncGrpcServerHandler(), nullptr);
    EXPECT_NE(first.asyncGrpcServerHandler(), second.asyncGrpcServerHandler());
}

TEST(GrpcServerObserverTree, KeepsItsHandlerAlive) {
    grpc::ServerBuilder serverBuilder;
    auto builder = std::make_unique<AsyncGRPCServerObsTreeBuilder>(&serverBuilder,
                                                                   std::make_shared<std::mutex>());
    const std::weak_ptr<AsyncGrpcServerHandler> handler = builder->asyncGrpcServerHandler();
    auto tree = std::make_unique<GrpcServerObserverTree>(builder->asyncGrpcServerHandler());
    builder.reset();
    EXPECT_FALSE(handler.expired());
    tree.reset();
    EXPECT_TRUE(handler.expired());
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
