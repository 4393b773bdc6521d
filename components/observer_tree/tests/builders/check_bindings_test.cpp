#include "hox/observer_tree/builders/check_bindings.h"

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>

#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using ::testing::StartsWith;

/// A pool with the service "S", whose methods have these bindings.
class ServicePool {
public:
    explicit ServicePool(const std::vector<std::pair<std::string, int>>& bindings) {
        google::protobuf::FileDescriptorProto file;
        file.set_name("s.proto");
        file.set_syntax("proto3");
        file.add_dependency(ObsTreeOptions::descriptor()->file()->name());
        auto* service = file.add_service();
        service->set_name("S");
        for (const auto& [key, type] : bindings) {
            auto* method = service->add_method();
            method->set_name("m" + std::to_string(service->method_size()));
            method->set_input_type(ObserveReq::descriptor()->full_name());
            method->set_output_type(ObserveReq::descriptor()->full_name());
            auto* options = method->mutable_options()->MutableExtension(obs_tree_option);
            options->set_key(key);
            options->set_type(static_cast<ObsTreeOptions::func_type>(type));
        }
        m_pool.BuildFile(file);
    }

    /// What is wrong with the service, empty for nothing.
    std::string complaint() const {
        try {
            checkBindings(m_pool, "S");
        } catch (const ObsTreeBuildError& error) {
            return error.what();
        }
        return {};
    }

private:
    google::protobuf::DescriptorPool m_pool{google::protobuf::DescriptorPool::generated_pool()};
};

TEST(CheckBindings, AcceptsEachOperationOncePerKey) {
    EXPECT_EQ(
        ServicePool({{"/a", 1}, {"/a", 2}, {"/a", 3}, {"/a", 4}, {"/a", 5}, {"/b", 1}}).complaint(),
        "");
}

TEST(CheckBindings, RefusesTwoMethodsOfOneKeyAndType) {
    EXPECT_THAT(ServicePool({{"/a", 2}, {"/b", 2}, {"/a", 2}}).complaint(),
                StartsWith("ObsTree Build Error: Method S.m3 is another one with the key /a and "
                           "the type READ("));
}

TEST(CheckBindings, RefusesABindingWithoutAValidType) {
    for (const int type : {0, 6}) {
        EXPECT_THAT(ServicePool({{"/a", type}}).complaint(),
                    StartsWith("ObsTree Build Error: The obs_tree_option of method S.m1 has the "
                               "key /a and no valid type("));
    }
}

TEST(CheckBindings, RefusesABindingWithoutAKey) {
    EXPECT_THAT(ServicePool({{"", 1}}).complaint(),
                StartsWith("ObsTree Build Error: The obs_tree_option of method S.m1 has no key("));
}

TEST(CheckBindings, RefusesAServiceThatThePoolDoesNotKnow) {
    EXPECT_THROW(checkBindings(*google::protobuf::DescriptorPool::generated_pool(), "No.Such"),
                 ObsTreeBuildError);
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
