#pragma once

#include <spdlog/logger.h>

#include <any>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "configuration.pb.h"
#include "hox/configuration/slice_state.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/observer_tree/status.h"
#include "store_wait.h"

namespace Hox::Capability::Configuration {

/// One observation of a slice in the central store, followed until the end of this object: it
/// begins anew after each loss of the store, with the last known state id.
///
/// A thread waits for the store and starts the observation. What the store says arrives on the
/// thread of the proxy's client, which holds the capability's mutex.
class ConfObserveStruct {
public:
    using ProxyTree = Hox::ObserverTree::GrpcProxyObserverTree;
    using Callback =
        std::function<void(Hox::ObserverTree::ChangeSetType, const Hox::ObserverTree::Status&)>;

    /// What the observation needs to know of its surroundings.
    struct Surroundings {
        std::shared_ptr<spdlog::logger> logger;
        std::shared_ptr<ProxyTree> store;
        std::string storeName;              ///< For the log.
        std::function<SliceState()> slice;  ///< What is known of the slice now.
        std::function<bool()> isEnding;     ///< Whether the process is about to end.
    };

    /// Starts the thread. The callback gets each change set of the store as it was sent.
    ConfObserveStruct(Surroundings surroundings, Api::ObserveCapConfReq request, Callback callback);

    /// Ends the observation and the thread, within a step of its waits; waits for a callback that
    /// is running. The caller holds no lock that the callback takes.
    ~ConfObserveStruct();
    ConfObserveStruct(const ConfObserveStruct&) = delete;
    ConfObserveStruct(ConfObserveStruct&&) = delete;
    ConfObserveStruct& operator=(const ConfObserveStruct&) = delete;
    ConfObserveStruct& operator=(ConfObserveStruct&&) = delete;

private:
    void run();
    bool waitForStore(bool isFirst);
    std::any observe();
    void onChanges(const Hox::ObserverTree::ChangeSetType& changes,
                   const Hox::ObserverTree::Status& status);
    bool isOutdated(const Hox::ObserverTree::Status& status);
    void waitForLoss();
    bool isEnding() const;

    const Surroundings m_surroundings;
    Api::ObserveCapConfReq m_request;  // changed by the thread only
    const Callback m_callback;

    std::atomic<bool> m_isEnding{false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    SliceState m_slice;          // when the observation began. GUARDED_BY(m_mutex)
    bool m_hasAnswered = false;  // the store, since then. GUARDED_BY(m_mutex)
    bool m_isLost = false;       // GUARDED_BY(m_mutex)
    /// The next observation gets the content, whatever state is known. GUARDED_BY(m_mutex)
    bool m_asksForContent = false;
    std::thread m_thread;
};

}  // namespace Hox::Capability::Configuration
