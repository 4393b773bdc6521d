#include "hox/service_common/capability/tree_cap_mngr.h"

#include <gmock/gmock.h>

#include <memory>

#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/testing/in_process_service.h"
#include "test_service.grpc.pb.h"

namespace Hox::Service {
namespace {

/// Two methods of this service read at the same key.
using ServiceWithEqualBindings = ObserverTree::Test::TestService;

template <typename GrpcService>
class Capability : public TreeCapMngr<GrpcService> {
public:
    explicit Capability(bool& isRegistered) : m_isRegistered(isRegistered) {}
    int id() const override { return static_cast<int>(CapabilityType::Reserved); }

private:
    void registerHandlers(ObserverTree::ObserverTree& /*tree*/, LumServiceCtx& /*ctx*/) override {
        m_isRegistered = true;
    }

    bool& m_isRegistered;
};

TEST(TreeCapMngrTest, AServiceWithTwoEqualBindingsDoesNotStart) {
    bool isRegistered = false;
    try {
        Hox::Testing::InProcessService service(
            std::make_unique<Capability<ServiceWithEqualBindings>>(isRegistered));
        FAIL() << "started";
    } catch (const ObserverTree::ObsTreeBuildError& error) {
        EXPECT_THAT(error.what(),
                    ::testing::StartsWith("ObsTree Build Error: Method "
                                          "Hox.ObserverTree.Test.TestService.readItemToo is "
                                          "another one with the key /items and the type READ("));
    }
    EXPECT_FALSE(isRegistered);
}

TEST(TreeCapMngrTest, AServiceWithoutBindingsStarts) {
    bool isRegistered = false;
    const Hox::Testing::InProcessService service(
        std::make_unique<Capability<ObserverTree::Test::PlainService>>(isRegistered));
    EXPECT_TRUE(isRegistered);
}

}  // namespace
}  // namespace Hox::Service
