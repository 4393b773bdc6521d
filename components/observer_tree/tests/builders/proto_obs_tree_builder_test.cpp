#include "hox/observer_tree/builders/proto_obs_tree_builder.h"

#include <gmock/gmock.h>

#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/testing/log_capture.h"
#include "test_service.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const auto& pool() {
    return *google::protobuf::DescriptorPool::generated_pool();
}

std::vector<std::string> methodNames(const std::string& service) {
    Item::descriptor();  // makes the file known to the pool
    std::vector<std::string> names;
    for (const auto* method : ProtoObsTreeBuilder().getObsTreeMethods(pool(), service)) {
        names.push_back(method->name());
    }
    return names;
}

TEST(ObsTreeBuildError, HasItsPrefixAndPlace) {
    EXPECT_STREQ(ObsTreeBuildError("text", "file.cpp", 5).what(),
                 "ObsTree Build Error: text(file.cpp:5)");
}

TEST(ProtoObsTreeBuilder, FindsBoundMethodsInDeclarationOrder) {
    EXPECT_THAT(methodNames("Hox.ObserverTree.Test.TestService"),
                ElementsAre("createItem", "readItem", "updateItem", "removeItem", "readItemToo",
                            "readMissing", "observeItems", "observeMissing"));
}

TEST(ProtoObsTreeBuilder, TracesWhatItFinds) {
    const Hox::Testing::LogCapture log(
        "proto_obs_tree_builder.h::Hox::ObserverTree::ProtoObsTreeBuilder");
    methodNames("Hox.ObserverTree.Test.TestService");
    EXPECT_THAT(log.textsAt(spdlog::level::trace),
                ElementsAre("Service Hox.ObserverTree.Test.TestService binds 8 of 9 methods to a "
                            "tree"));
}

TEST(ProtoObsTreeBuilder, FindsNothingInAServiceWithoutBindings) {
    EXPECT_THAT(methodNames("Hox.ObserverTree.Test.PlainService"), IsEmpty());
}

TEST(ProtoObsTreeBuilder, LeavesTheTypeOfABindingAlone) {
    EXPECT_THAT(methodNames("Hox.ObserverTree.Test.WrongTypeService"), ElementsAre("reserved"));
}

TEST(ProtoObsTreeBuilder, RefusesAServiceThatThePoolDoesNotKnow) {
    try {
        ProtoObsTreeBuilder().getObsTreeMethods(pool(), "Hox.No.Such");
        FAIL() << "nothing thrown";
    } catch (const ObsTreeBuildError& error) {
        EXPECT_THAT(error.what(), StartsWith("ObsTree Build Error: Unable to find service "
                                             "Hox.No.Such in descriptor pool("));
    }
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
