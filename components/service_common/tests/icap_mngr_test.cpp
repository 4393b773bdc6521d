#include "hox/service_common/capability/icap_mngr.h"

#include <gtest/gtest.h>

#include <cxxopts.hpp>

#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Service {
namespace {

/// A capability with the minimum of code.
class PlainCapMngr : public ICapMngr {
public:
    int id() const override { return 24; }
};

TEST(CapMngr, HasAMutexOfItsOwn) {
    const PlainCapMngr one;
    const PlainCapMngr other;
    ASSERT_NE(one.getMutex(), nullptr);
    EXPECT_NE(one.getMutex(), other.getMutex());
}

TEST(CapMngr, NeedsNothingButANumber) {
    LumServiceCtx ctx("program");
    const std::string help = ctx.getOptions().help();
    PlainCapMngr capability;

    capability.addOptions(ctx.getOptions());
    capability.onDiscoveryEvent(Discovery::Status{});
    capability.initCapability(ctx);
    capability.serverStarted(ctx);
    capability.proxyObsTreesReady(ctx);

    EXPECT_EQ(ctx.getOptions().help(), help);
    EXPECT_EQ(ctx.getGrpcServer(), nullptr);
}

}  // namespace
}  // namespace Hox::Service
