#pragma once

#include <gtest/gtest.h>

#include <any>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hox/observer_tree/persistence/persistence_hndlr.h"
#include "hox/testing/temp_dir.h"
#include "tree_test_kit.h"

namespace Hox::ObserverTree::TestKit {

constexpr const char* persistObserveAddress = "/.persist_observe_hndlr.";
constexpr const char* persistUpdateAddress = "/.persist_upd_hndlr.";

/// The request of an observer that selects by the expression.
RegExObserveReq expression(const std::string& regEx);

/// A central store that records what it gets and answers as configured, by default with its own
/// ids. Like the real one it does not use the state id itself.
class FakeCentralStore : public INodeDataHndlr {
public:
    StoreNodeDataReturn storeNodeData(const std::string& lastStateId, const std::string& nodeType,
                                      const std::string& nodeId, const std::string& capabilityId,
                                      const ChangeSetType& changes, bool isPatch) override;

    std::any observeNodeData(
        const std::string& lastStateId, const std::string& nodeType, const std::string& nodeId,
        const std::string& capabilityId,
        std::function<void(ChangeSetType, const Status&)> newCallback) override;

    std::vector<std::string> calls;
    std::deque<StoreNodeDataReturn> answers;
    std::function<void()> onObserve;         ///< runs inside observeNodeData
    std::function<void()> onEndOfObserving;  ///< runs when the last handle is dropped
    std::function<void(ChangeSetType, const Status&)> callback;
    int endedObservings = 0;

private:
    StoreNodeDataReturn answerTo(const ChangeSetType& changes);

    int m_stored = 0;
};

/// A tree whose keys "/keep/..." are persisted by a handler that each test creates.
class Persistence : public ::testing::Test {
protected:
    Persistence();

    PersistenceHndlr& handler(const std::string& regex = "/keep/.*");

    /// Runs the action inside an operation of the tree that may write any key.
    void write(std::function<void(DataTree&)> action);
    void set(const std::string& key, const std::string& text);
    void set(const std::string& key, DataTreeValPtr newValue);
    void remove(const std::string& key);

    /// "<key>=<text>" for each key of the tree, which holds texts only.
    std::vector<std::string> content();
    /// The same for the files in the folder.
    static std::vector<std::string> files(const std::filesystem::path& dir);

    /// Observes by the expression; ignores the snapshot.
    ObserveRaiiHandleType<RegExObserveReq> observe(const std::string& regEx,
                                                   Observations& observations);

    UpdateDataTreeResp update(const UpdateDataTreeReq& request);
    ReadDataTreeResp read(const std::string& regex);

    Hox::Testing::TempDir m_parent;
    const std::filesystem::path m_dir = m_parent / "store";
    std::function<void(DataTree&)> m_write;
    std::unique_ptr<std::unique_lock<std::mutex>> m_lock;
    ObserverTree m_tree;
    std::unique_ptr<PersistenceHndlr> m_handler;
};

}  // namespace Hox::ObserverTree::TestKit
