#pragma once

#include <spdlog/fwd.h>

#include <any>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "configuration.pb.h"
#include "hox/cpputil/log/logger_name.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/persistence/persistence_hndlr.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::Configuration {

class SavedCopy;
class SliceObservers;

/// All logic of the configuration store: slices with state ids, in one tree under /sys/conf.
///
/// Changes stay in memory, as the working copy, until an operation makes them the saved copy: a
/// directory whose values are never edited, but replaced as a whole in one step. All functions run
/// under the capability's mutex; the handlers also run under the tree's locks. The tree refers to
/// this object, so the object must live until the last request has been served. The destructor runs
/// without the mutex: it may have to join the state tree's thread, which needs the mutex.
class ConfObstreeHandler {
public:
    /// Loads the saved configuration in confPath, which is created if missing, into the tree, and
    /// locks the folder against other services. `lock` is the frame's slot for its lock of the
    /// capability. Throws InitializationError if another service uses the folder, and
    /// std::filesystem::filesystem_error for a value that cannot be read: a service that continued
    /// would save without it.
    ConfObstreeHandler(Hox::ObserverTree::ObserverTree& tree,
                       std::unique_ptr<std::unique_lock<std::mutex>>& lock,
                       std::shared_ptr<std::mutex> capabilityMutex, std::string confPath,
                       std::string serviceId);
    virtual ~ConfObstreeHandler();
    ConfObstreeHandler(const ConfObstreeHandler&) = delete;
    ConfObstreeHandler(ConfObstreeHandler&&) = delete;
    ConfObstreeHandler& operator=(const ConfObstreeHandler&) = delete;
    ConfObstreeHandler& operator=(ConfObstreeHandler&&) = delete;

    /// Sets the tree that state notifications are sent to. Without one, none are sent.
    void setStateTree(std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> stateTree);

    /// Registers the handlers of the function tree.
    void registerObsTreeHandlers();

    /// Starts to watch the tree for changes that observers of slices must get.
    void addObservers();

private:
    template <typename Resp>
    using Return = Hox::ObserverTree::UnaryHandlerReturnType<Resp>;

    Return<Api::UpdateCapConfResp> updateCapConf(Api::UpdateCapConfReq& request,
                                                 Hox::ObserverTree::DataTree& tree);
    Return<Api::ReadCapConfResp> readCapConf(const Api::ReadCapConfReq& request,
                                             Hox::ObserverTree::DataTree& tree) const;
    void greet(const Api::ObserveCapConfReq& request,
               const Hox::ObserverTree::ObserverCallback& callback);
    void onConfTreeChanged(const Hox::ObserverTree::ChangeSetType& changes,
                           const Hox::ObserverTree::Status& status);

    void notify(StateMonitoring::Api::StateSeverity severity, const std::string& msg) const;

    // The working copy, the saved copy and packages: conf_obstree_handler_packages.cpp.
    Return<Api::GetSysConfResp> readSysConf() const;
    Return<Api::UpdateSysConfResp> updateSysConf(const Api::UpdateSysConfReq& request,
                                                 const Hox::ObserverTree::DataTree& tree);
    Hox::ObserverTree::Status saveSysConfData(const std::string& data);
    Hox::ObserverTree::Status saveChanges(const Hox::ObserverTree::DataTree& tree);
    Hox::ObserverTree::Status discardChanges();
    Hox::ObserverTree::Status clearSysConfData();
    void replaceWorkingCopy(Hox::ObserverTree::ChangeSetType content);
    Hox::ObserverTree::Status refused(const char* operation, const std::exception& error) const;

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    std::shared_ptr<spdlog::logger> m_logger;
    Hox::ObserverTree::ObserverTree& m_tree;
    std::any m_confObserveHandle;
    bool m_ignoreTreeChanges = true;
    bool m_hasUnsavedChanges = false;
    std::unique_ptr<SavedCopy> m_savedCopy;
    std::unique_ptr<Hox::ObserverTree::PersistenceHndlr> m_persistHndlr;
    std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> m_stateTree;
    std::string m_serviceId;
    /// Destroyed first: its thread uses all other members.
    std::unique_ptr<SliceObservers> m_sliceObservers;
};

}  // namespace Hox::Capability::Configuration
