#include "hox/service_common/service_initializer/create_persistence_handler.h"

#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <any>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "hox/testing/temp_dir.h"

namespace Hox::Service {
namespace {

using google::protobuf::StringValue;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTree;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;

/// A central store that records the requested address, and whether the capability's lock was free.
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
        const auto& lock = m_ctx.getCapabilityLock();
        wasLockFree = !lock || !lock->owns_lock();
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
    const auto handler =
        createPersistenceHandler(ctx, std::make_shared<std::mutex>(), tree, "snmp", "/snmp");
    const auto store = std::make_shared<RecordingStore>(ctx);
    handler->setNodeDataHndlr(store);
    std::mutex mutex;
    // The slot is filled after the creation, as between two hooks.
    ctx.getCapabilityLock() = std::make_unique<std::unique_lock<std::mutex>>(mutex);
    handler->init(true, "");
    EXPECT_EQ(store->asked, "mb/0/snmp");
    EXPECT_TRUE(store->wasLockFree);
    EXPECT_TRUE(ctx.getCapabilityLock()->owns_lock());
}

TEST(CreatePersistenceHandler, LeavesALockAloneThatIsNotThereOrNotHeld) {
    LumServiceCtx ctx("program");
    ctx.setIdentity({"head-1", "0", "mb"});
    Hox::ObserverTree::ObserverTree tree;
    const auto handler =
        createPersistenceHandler(ctx, std::make_shared<std::mutex>(), tree, "snmp", "/snmp");
    const auto store = std::make_shared<RecordingStore>(ctx);
    handler->setNodeDataHndlr(store);
    handler->init(true, "");
    EXPECT_EQ(store->asked, "mb/0/snmp");
    EXPECT_FALSE(ctx.getCapabilityLock());

    handler->stopPersistingObsTree();
    store->asked.clear();
    std::mutex mutex;
    ctx.getCapabilityLock() =
        std::make_unique<std::unique_lock<std::mutex>>(mutex, std::defer_lock);
    handler->startPersistingObsTree("", false);
    EXPECT_EQ(store->asked, "mb/0/snmp");
    EXPECT_FALSE(ctx.getCapabilityLock()->owns_lock());
}

TEST(CreatePersistenceHandler, KeepsTheSelectedKeysInFilesWithoutAStore) {
    const Hox::Testing::TempDir dir;
    LumServiceCtx ctx("program");
    Hox::ObserverTree::ObserverTree tree;
    tree.registerUnaryOpHandler<UnaryOps::UPDATE, StringValue, StringValue>(
        "/", [](const StringValue& request, DataTree& data) {
            for (const char* key : {"/snmp", "/other"}) {
                data.insert_or_assign(key, std::make_shared<const DataTreeVal>(request));
            }
            return Hox::ObserverTree::UnaryHandlerReturnType<StringValue>{nullptr, Status()};
        });
    const auto handler =
        createPersistenceHandler(ctx, std::make_shared<std::mutex>(), tree, "snmp", "/snmp");
    handler->init(true, dir.path());
    tree.callApiOp<UnaryOps::UPDATE, StringValue, StringValue>("/", StringValue());
    const auto files = handler->nodeDataFile().readNodeData(dir.path());
    ASSERT_EQ(files.size(), 1U);
    EXPECT_EQ(files.begin()->first, "/snmp");
}

}  // namespace
}  // namespace Hox::Service
