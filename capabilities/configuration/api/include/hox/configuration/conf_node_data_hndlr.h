#pragma once

#include <spdlog/fwd.h>

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "configuration.pb.h"
#include "hox/configuration/slice_state.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/observer_tree/persistence/inode_data_hndlr.h"

namespace Hox::Capability::Configuration {

/// Keeps the persistent part of a tree in the configuration service of another process, the central
/// store, each value as JSON text.
///
/// Waits for the store as long as it takes, up to an hour, and says so in the log. When the process
/// is about to end all waits end, also the one for the answer to a call.
class ConfNodeDataHndlr : public Hox::ObserverTree::INodeDataHndlr {
public:
    using ProxyTree = Hox::ObserverTree::GrpcProxyObserverTree;

    /// `confProxy` is a proxy of the store's ConfigurationService, `address` its name in the log.
    /// `isEnding` says whether the process is about to end; it is called on any thread.
    ConfNodeDataHndlr(std::shared_ptr<ProxyTree> confProxy, const std::string& address,
                      std::function<bool()> isEnding);

    /// Sends the changes and returns the store's answer, with the status of the call.
    /// ALREADY_EXISTS, with nothing sent, if there is no change but that of the state id;
    /// UNAVAILABLE if the process is about to end, CANCELLED if it is meanwhile. If the store
    /// refuses the state id, the slice is observed anew. Blocks its caller, which holds the locks
    /// of the tree. Asserts that the store is connected within an hour. Throws what the values'
    /// conversion throws: std::out_of_range for a key without changes.
    Hox::ObserverTree::StoreNodeDataReturn storeNodeData(
        const std::string& lastStateId, const std::string& nodeType, const std::string& nodeId,
        const std::string& capabilityId, const Hox::ObserverTree::ChangeSetType& changes,
        bool isPatch) override;

    /// Returns at once; the store is awaited on a thread of the observation, which asserts that it
    /// is connected within an hour. After a loss of the store the observation begins anew with the
    /// last state id that is known by then. The callback gets what the store says, and CANCELLED at
    /// a loss. What cannot be read is logged and delivered as FAILED_PRECONDITION without changes;
    /// any other status that is neither OK nor ALREADY_EXISTS is logged as well.
    ///
    /// The handle is dropped before this object, under no lock that the callback takes; that waits
    /// for a running callback. Throws std::system_error if no thread can be created.
    std::any observeNodeData(
        const std::string& lastStateId, const std::string& nodeType, const std::string& nodeId,
        const std::string& capabilityId,
        std::function<void(Hox::ObserverTree::ChangeSetType, const Hox::ObserverTree::Status&)>
            callback) override;

private:
    using Callback =
        std::function<void(Hox::ObserverTree::ChangeSetType, const Hox::ObserverTree::Status&)>;

    /// What is known here of the slices in the store.
    class Slices {
    public:
        void observed(const Api::ConfId& slice, const std::string& stateId);
        void stored(const Api::ConfId& slice, const std::string& stateId);
        void refused(const Api::ConfId& slice);
        SliceState get(const Api::ConfId& slice) const;

    private:
        mutable std::mutex m_mutex;
        std::map<std::string, SliceState> m_slices;  // by serialised name. GUARDED_BY(m_mutex)
    };

    void deliver(const Api::ConfId& slice, const Hox::ObserverTree::ChangeSetType& changes,
                 const Hox::ObserverTree::Status& status, const Callback& callback);
    Hox::ObserverTree::StoreNodeDataReturn send(const Api::UpdateCapConfReq& request);

    const std::shared_ptr<spdlog::logger> m_logger;
    const std::shared_ptr<ProxyTree> m_confProxy;
    const std::string m_storeName;
    const std::function<bool()> m_isEnding;
    Slices m_slices;
};

}  // namespace Hox::Capability::Configuration
