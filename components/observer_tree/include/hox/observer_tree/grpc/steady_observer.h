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

/// Follows the keys of a tree in another service until the end of this object, also when that
/// service ends and comes back: it observes anew, compares what it then sees with what it saw last,
/// and reports only what has really changed, with what has been removed meanwhile.
///
/// For addresses with the default observe handler. A thread of its own waits for the service and
/// begins each observation. While the service is away nothing is reported.
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
    /// nothing is ever reported.
    SteadyObserver(std::shared_ptr<GrpcProxyObserverTree> tree, std::shared_ptr<std::mutex> mutex,
                   std::string address, std::string keyPattern, Callback callback);

    /// Ends the observation and waits for a callback that is running. The caller does not hold the
    /// capability's mutex.
    ~SteadyObserver();
    SteadyObserver(const SteadyObserver&) = delete;
    SteadyObserver(SteadyObserver&&) = delete;
    SteadyObserver& operator=(const SteadyObserver&) = delete;
    SteadyObserver& operator=(SteadyObserver&&) = delete;

private:
    using Content = std::map<std::string, DataTreeValPtr>;
    using Handle = ObserveRaiiHandleType<ObserveReq>;

    void run();
    bool observeUntilLoss();
    Handle observe(const std::string& keyPattern, ObserverCallback callback);
    void onElement(const ChangeSetType& changes, const Status& status);  // REQUIRES(*m_mutex)
    void replaceContent(const Content& content);                         // REQUIRES(*m_mutex)
    void change(const std::string& key, const DataTreeValPtr& current);  // REQUIRES(*m_mutex)
    void setState(bool& flag);
    template <typename Condition>
    bool waitFor(std::chrono::milliseconds limit, Condition condition);
    template <typename Condition>
    void waitFor(Condition condition);

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    const std::shared_ptr<spdlog::logger> m_logger;
    const std::shared_ptr<GrpcProxyObserverTree> m_tree;
    const std::shared_ptr<std::mutex> m_mutex;  // the capability's; before m_stateMutex
    const std::string m_address;
    const std::string m_keyPattern;
    const Callback m_callback;

    Content m_content;  // as reported. GUARDED_BY(*m_mutex)

    std::mutex m_stateMutex;
    std::condition_variable m_stateChanged;
    // Of the current observation. GUARDED_BY(m_stateMutex)
    bool m_hasContent = false;  // its first element has come, or there is nothing
    bool m_isProbed = false;    // the service has answered a question that followed it
    bool m_isLost = false;
    std::atomic<bool> m_isEnding{false};
    std::thread m_thread;
};

}  // namespace Hox::ObserverTree
