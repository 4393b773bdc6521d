#include "hox/service_common/service_initializer/create_persistence_handler.h"

#include <gtest/gtest.h>

#include <any>
#include <string>
#include <utility>

namespace Hox::Service {
namespace {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::Status;

/// A central store that records whom it is asked for, and whether the capability's lock was free.
class RecordingStore : public Hox::ObserverTree::INodeDataHndlr {
public:
    explicit RecordingStore(LumServiceCtx& ctx) : m_ctx(ctx) {}

    Hox::ObserverTree::StoreNodeDataReturn storeNodeData(const std::string& /*lastStateId*/,
                                                         const std::string& /*nodeType*/,
                                                         const std::string& /*nodeId*/,
                                                         const std::string& /*capabilityId*/,
                                                         const ChangeSetType& /*changes*/,
                                                         bool /*isPatch*/) override {
        return {};
    }

    std::any observeNodeData(const std::string& /*lastStateId*/, const std::string& nodeType,
                             const std::string& nodeId, const std::string& capabilityId,
                             std::function<void(ChangeSetType, const Status&)> callback) override {
        asked = nodeType + "/" + nodeId + "/" + capabilityId;
        wasLockFree = !m_ctx.getCapabilityLock()->owns_lock();
        callback({}, Status());
        return {};
    }

    std::string asked;
    bool wasLockFree = false;

private:
    LumServiceCtx& m_ctx;
};

TEST(CreatePersistenceHandler, AddressesTheCapabilityOfThisNodeAndUsesTheFramesLock) {
    LumServiceCtx ctx("program");
    ctx.setIdentity({"head-1", "0", "mb"});
    Hox::ObserverTree::ObserverTree tree;
    const auto handler = createPersistenceHandler(ctx, tree, "snmp", "/snmp");
    const auto store = std::make_shared<RecordingStore>(ctx);
    handler->setNodeDataHndlr(store);
    std::mutex mutex;
    // The slot is filled behind the creation, as it is between two hooks.
    ctx.getCapabilityLock() = std::make_unique<std::unique_lock<std::mutex>>(mutex);
    handler->init(true, "");
    EXPECT_EQ(store->asked, "mb/0/snmp");
    EXPECT_TRUE(store->wasLockFree);
    EXPECT_TRUE(ctx.getCapabilityLock()->owns_lock());
}

TEST(CreatePersistenceHandler, WorksWithFilesAloneAndWithoutALock) {
    LumServiceCtx ctx("program");
    Hox::ObserverTree::ObserverTree tree;
    const auto handler = createPersistenceHandler(ctx, tree, "snmp", "/snmp");
    handler->init(true, "");
    handler->stopPersistingObsTree();
}

}  // namespace
}  // namespace Hox::Service
