#pragma once

#include <spdlog/fwd.h>

#include <any>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "hox/cpputil/regex/bounded_regex.h"
#include "hox/cpputil/semaphore/counting_semaphore.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/persistence/inode_data_hndlr.h"
#include "hox/observer_tree/persistence/node_data_file_hndlr.h"
#include "obstree_internals.pb.h"

namespace Hox::ObserverTree {

class UnstoredKeys;

/// Persists the keys of a tree that an expression selects, in a directory, in a central store, or
/// in both.
///
/// Uses the tree's public operations only. Its registered handlers stay in the tree and refer to
/// this object, so the owner keeps it as long as the tree serves requests. All functions run on a
/// thread that holds the capability's mutex.
class PersistenceHndlr {
public:
    /// Registers its handlers. `lock` is the frame's slot for its lock of the capability, null or
    /// empty after start-up; nodeType, nodeId and capabilityId are the address in the central
    /// store. keyRegex is not checked here: a malformed one ends the process on first use. Throws
    /// DoubleRegistrationError for a second handler on one tree.
    PersistenceHndlr(ObserverTree& tree, std::unique_ptr<std::unique_lock<std::mutex>>& lock,
                     std::string nodeType, std::string nodeId, std::string capabilityId,
                     const std::string& keyRegex);
    virtual ~PersistenceHndlr();
    PersistenceHndlr(const PersistenceHndlr&) = delete;
    PersistenceHndlr(PersistenceHndlr&&) = delete;
    PersistenceHndlr& operator=(const PersistenceHndlr&) = delete;
    PersistenceHndlr& operator=(PersistenceHndlr&&) = delete;

    /// Attaches the central store. Must be called before persisting starts. `isEnding` ends the
    /// wait for the store's first answer; it is called on the waiting thread.
    void setNodeDataHndlr(
        std::shared_ptr<INodeDataHndlr> nodeDataHndlr,
        std::function<bool()> isEnding = [] { return false; });

    /// May change the values read from a directory before they are loaded.
    using LoadFilter = std::function<void(ChangeSetType&)>;

    /// Replaces the content of the tree by that of the directory, which is created if missing, then
    /// starts persisting if requested. An empty directory name means no directory. Throws
    /// std::filesystem::filesystem_error, also for a value that cannot be read, and what `onLoad`
    /// throws; the tree is unchanged then.
    void init(bool startPersisting, const std::string& persistDir, const LoadFilter& onLoad = {});

    /// Stores every further change; with persistFirstChange also the current content of the tree,
    /// before this call returns. With a central store it waits for the store's first answer, or the
    /// end of the process, and releases the capability's lock meanwhile; then it must not be called
    /// from a handler or an observer of the tree, because the answer needs the tree. Asserts that
    /// it is not persisting already.
    void startPersistingObsTree(const std::string& persistDir, bool persistFirstChange);

    /// Writes all persistent keys of the tree into the directory, for operations on whole
    /// directories. Runs inside a handler of the tree, which passes its data tree. Throws what
    /// NodeDataFileHndlr::saveNodeData throws; some values may have been written then.
    void writeAll(const DataTree& tree, const std::filesystem::path& directory);

    /// Ends the observation of the central store; nothing is stored there any more. Waits for a
    /// delivery that is running, so the caller holds neither the capability's mutex nor a lock of
    /// the tree, which still exists.
    void endCentralObserving();

    /// Ends persisting. The content of the central store continues to replace the persistent part
    /// of the tree, until the next start observes the store again.
    void stopPersistingObsTree();

    /// Writes the changes to the tree. Without isPatch all other selected keys are removed; with
    /// doCompare equal values cause no change. Large changes should be moved in: each is released
    /// as soon as the request has it.
    void applyChangeSet(ChangeSetType changes, bool isPatch, bool doCompare);

    /// The file store, for operations on whole directories.
    NodeDataFileHndlr& nodeDataFile() { return m_nodeDataFile; }

private:
    // All of these REQUIRE the capability's mutex. The tree calls update and read in its operations
    // and onTreeChanged in its deliveries, with both of its locks held. The store's client calls
    // onCentralData, without them.
    UnaryHandlerReturnType<UpdateDataTreeResp> update(const UpdateDataTreeReq& request,
                                                      DataTree& tree);
    UnaryHandlerReturnType<ReadDataTreeResp> read(const ReadDataTreeReq& request,
                                                  DataTree& tree) const;
    void startCentralObserving();
    void onCentralData(const ChangeSetType& changes, const Status& status,
                       Hox::CppUtil::CountingSemaphore& firstAnswer);
    void onTreeChanged(const ChangeSetType& changes, const Status& status,
                       const std::string& persistDir);
    void saveToFiles(ChangeSetType changes, const std::string& persistDir);
    void storeCentrally(ChangeSetType& changes);
    void rememberFailure(const Status& status, const ChangeSetType& changes, bool isPatch);
    void forgetUnstored(const ChangeSetType& changes, bool isPatch);
    void storeEverythingCentrally();
    ChangeSetType removedFrom(const ChangeSetType& picture, const ChangeSetType& changes) const;
    ChangeSetType readWholePicture() const;

    // Constant, or self-synchronised.
    const std::shared_ptr<spdlog::logger> m_logger;
    ObserverTree& m_tree;
    std::unique_ptr<std::unique_lock<std::mutex>>& m_lock;
    const std::string m_nodeType;
    const std::string m_nodeId;
    const std::string m_capabilityId;
    const std::string m_persistKeyRegex;

    // GUARDED_BY(the capability's mutex). Destroyed from last to first: the central observation
    // ends before everything that its last delivery uses; the tree observer ends after it.
    std::any m_observeRaiiHandle;
    NodeDataFileHndlr m_nodeDataFile;
    bool m_persistFirstChange = false;
    std::shared_ptr<INodeDataHndlr> m_nodeDataHndlr;
    std::function<bool()> m_isEnding;
    std::string m_confStateId;
    bool m_storeCentrally = false;
    int m_storedCount = 0;
    bool m_isTakingOver = false;  // the content of the store
    bool m_isStoreLost = false;   // since its last answer
    const std::unique_ptr<UnstoredKeys> m_unstored;
    std::any m_centralObserveHandle;
    bool m_centralDataSeen = false;
};

}  // namespace Hox::ObserverTree
