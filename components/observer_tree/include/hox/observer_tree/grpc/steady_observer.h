#pragma once

#include <spdlog/fwd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "hox/cpputil/log/logger_name.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/status.h"

namespace Hox::ObserverTree {

class SteadyObservation;

/// Follows the keys of a tree in another service until the end of this object, also when that
/// service ends and comes back: it observes anew, compares what it then sees with what it saw last,
/// and reports only what has really changed, with what has been removed meanwhile.
///
/// For addresses with the default observe handler. A handler that accepts an empty key pattern must
/// answer it at once: otherwise it is never noticed that there is nothing. A thread of its own
/// waits for the service and reads its stream. While the service is away nothing is reported; a
/// stream that ends for another reason, such as an element above the channel's limit, is logged as
/// well.
class SteadyObserver {
public:
    /// One change: `old` is null for a new key, `current` for a removed one. Called with the
    /// capability's mutex held, one change at a time; must not destroy the observer or throw.
    using Callback = std::function<void(const std::string& key, const DataTreeValPtr& old,
                                        const DataTreeValPtr& current)>;

    /// From the loss of a service to the next observation: at first, and at most if the service
    /// does not answer.
    static constexpr std::chrono::milliseconds minPause{200};
    static constexpr std::chrono::milliseconds maxPause{5000};

    /// Starts the thread. The proxy is of the service, `mutex` the capability's with which the
    /// proxy was created, `address` that of the observe method. A malformed pattern is logged, and
    /// nothing is ever reported. Throws std::out_of_range if the address has no observe method.
    SteadyObserver(std::shared_ptr<GrpcProxyObserverTree> tree, std::shared_ptr<std::mutex> mutex,
                   const std::string& address, std::string keyPattern, Callback callback);

    /// Ends the observation and waits for a callback that is running. The caller does not hold the
    /// capability's mutex.
    ~SteadyObserver();
    SteadyObserver(const SteadyObserver&) = delete;
    SteadyObserver(SteadyObserver&&) = delete;
    SteadyObserver& operator=(const SteadyObserver&) = delete;
    SteadyObserver& operator=(SteadyObserver&&) = delete;

private:
    using Content = std::map<std::string, DataTreeValPtr>;

    void run();
    bool observeUntilEnd();
    std::unique_ptr<SteadyObservation> begin();
    void onElement(const ObsTreeObserveChangeSet& element);              // REQUIRES(*m_mutex)
    void replaceContent(const Content& content);                         // REQUIRES(*m_mutex)
    void change(const std::string& key, const DataTreeValPtr& current);  // REQUIRES(*m_mutex)
    void onRefusal(SteadyObservation& observation);
    void logEnd(int code, const std::string& text);

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    const std::shared_ptr<spdlog::logger> m_logger;
    const std::shared_ptr<GrpcProxyObserverTree> m_tree;
    const std::shared_ptr<std::mutex> m_mutex;  // the capability's
    const OwnedRpcMethod& m_method;             // of the tree
    const std::string m_keyPattern;
    const Callback m_callback;

    // Used by the thread only.
    Content m_content;  // as reported
    std::string m_lastEnd;

    std::mutex m_stateMutex;  // briefly held; no other lock is taken meanwhile
    std::condition_variable m_ends;
    std::atomic<bool> m_isEnding{false};         // set with m_stateMutex held
    SteadyObservation* m_observation = nullptr;  // the running one. GUARDED_BY(m_stateMutex)
    std::thread m_thread;
};

}  // namespace Hox::ObserverTree
