#pragma once

#include <google/protobuf/message.h>

#include <any>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/persistence/inode_data_hndlr.h"
#include "hox/observer_tree/status.h"

namespace Hox::Capability::Configuration {

/// The configuration of one capability in a central store, for its only owner. It keeps the state
/// id of the slice, and what its owner has been told or has stored.
///
/// Each value is stored as a StringValue with the JSON form of the message, which the tools of an
/// operator can show. After observe() callable from any thread.
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

    /// Observes the slice until the end of this object, across restarts of the store; called once.
    /// The callback first gets all values, also if there are none. Then it gets what an operator
    /// reverts, imports or wipes, and what is different after a loss of the store; its own changes
    /// it does not get. It runs with the mutex of the store's proxy held, and may call set().
    /// Throws what the store's observeNodeData() throws.
    void observe(Callback callback);

    /// Waits until the callback has been called for the first time; false if that takes too long.
    /// The caller does not hold the mutex of the store's proxy.
    bool waitForContent(std::chrono::milliseconds limit);

    /// Stores the message at the key, which has a leading slash. FAILED_PRECONDITION, with nothing
    /// sent, before the callback's first call: a change must be based on what is there.
    /// FAILED_PRECONDITION as well if others have changed the slice and the callback has not had
    /// that change yet; it gets it soon. Otherwise what the store answers, which is awaited; one
    /// change at a time.
    Hox::ObserverTree::Status set(const std::string& key, const google::protobuf::Message& message);

    /// Removes the key; otherwise like set().
    Hox::ObserverTree::Status remove(const std::string& key);

private:
    void onChanges(Hox::ObserverTree::ChangeSetType changes, const Callback& callback);
    void reduceToDifferences(Hox::ObserverTree::ChangeSetType& content) const;  // REQUIRES(m_mutex)
    void keep(const std::string& key,
              const Hox::ObserverTree::DataTreeValPtr& value);  // REQUIRES(m_mutex)
    Hox::ObserverTree::Status store(const std::string& key,
                                    Hox::ObserverTree::DataTreeValPtr value);

    const std::shared_ptr<Hox::ObserverTree::INodeDataHndlr> m_store;
    const std::string m_nodeType;
    const std::string m_nodeId;
    const std::string m_capabilityId;
    /// Held over each change and its answer, so that the next one is based on it; before m_mutex.
    std::mutex m_storeMutex;
    std::mutex m_mutex;  // briefly held; no other lock is taken meanwhile
    std::condition_variable m_hasBeenTold;
    std::string m_stateId;                         // the last known one. GUARDED_BY(m_mutex)
    std::map<std::string, std::string> m_content;  // as text, by key. GUARDED_BY(m_mutex)
    bool m_hasContent = false;                     // from the store. GUARDED_BY(m_mutex)
    bool m_isTold = false;                         // the callback. GUARDED_BY(m_mutex)
    std::uint64_t m_elements = 0;                  // from the store. GUARDED_BY(m_mutex)
    std::any m_observation;
};

}  // namespace Hox::Capability::Configuration
