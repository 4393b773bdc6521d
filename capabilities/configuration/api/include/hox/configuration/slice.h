#pragma once

#include <google/protobuf/message.h>

#include <any>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/persistence/inode_data_hndlr.h"
#include "hox/observer_tree/status.h"

namespace Hox::Capability::Configuration {

/// The configuration of one capability in a central store, for its only owner. It keeps the state
/// id of the slice.
///
/// Each value is stored as a StringValue with the JSON form of the message, which the tools of an
/// operator can show. Callable from any thread.
class Slice {
public:
    /// What the store says: key to change, where a null value is one that has been removed.
    using Callback = std::function<void(const Hox::ObserverTree::ChangeSetType& changes)>;

    /// The store is a ConfNodeDataHndlr. The three names are those of the slice; none may be empty
    /// or contain a slash.
    Slice(std::shared_ptr<Hox::ObserverTree::INodeDataHndlr> store, std::string nodeType,
          std::string nodeId, std::string capabilityId);

    /// Ends the observation, if there is one, and waits for a callback that is running: the caller
    /// holds no lock that the callback takes.
    ~Slice() = default;
    Slice(const Slice&) = delete;
    Slice(Slice&&) = delete;
    Slice& operator=(const Slice&) = delete;
    Slice& operator=(Slice&&) = delete;

    /// Observes the slice until the end of this object, across restarts of the store. The callback
    /// gets all values at first, and then what an operator reverts, imports or wipes; its own
    /// changes it does not get. It runs with the mutex of the store's proxy held. Called once,
    /// before the first set(), which must be based on what is there. Throws what the store's
    /// observeNodeData() throws.
    void observe(Callback callback);

    /// Stores the message at the key, which has a leading slash. FAILED_PRECONDITION if the slice
    /// has been changed by others and the observer has not had that change yet; otherwise what the
    /// store answers. Blocks until the store answers.
    Hox::ObserverTree::Status set(const std::string& key, const google::protobuf::Message& message);

    /// Removes the key; otherwise like set().
    Hox::ObserverTree::Status remove(const std::string& key);

private:
    void onChanges(Hox::ObserverTree::ChangeSetType changes, const Callback& callback);
    Hox::ObserverTree::Status store(const std::string& key,
                                    Hox::ObserverTree::DataTreeValPtr value);

    const std::shared_ptr<Hox::ObserverTree::INodeDataHndlr> m_store;
    const std::string m_nodeType;
    const std::string m_nodeId;
    const std::string m_capabilityId;
    std::mutex m_mutex;     // briefly held; no other lock is taken meanwhile
    std::string m_stateId;  // the last known one. GUARDED_BY(m_mutex)
    std::any m_observation;
};

}  // namespace Hox::Capability::Configuration
