#pragma once

#include <grpcpp/completion_queue.h>

#include <chrono>
#include <memory>
#include <string>

#include "grpc/observe_stream.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"

namespace Hox::ObserverTree {

/// One observation of a SteadyObserver: the stream of its pattern, and another one with a question
/// whose answer shows that the service has handled the first one.
///
/// Used by one thread, but for cancel().
class SteadyObservation {
public:
    /// What there is to report.
    enum class Event {
        Content,  ///< The first element: all that there is.
        Nothing,  ///< There is no content.
        Change,   ///< A further element.
        Refusal,  ///< An element with a failed status.
        End,      ///< Both streams have ended. It is the last event.
    };

    /// Starts both streams. For a tree of the same process the caller holds its gate.
    SteadyObservation(const GrpcProxyObserverTree& tree, const OwnedRpcMethod& method,
                      const std::string& keyPattern);

    /// The end has been reported.
    ~SteadyObservation();
    SteadyObservation(const SteadyObservation&) = delete;
    SteadyObservation(SteadyObservation&&) = delete;
    SteadyObservation& operator=(const SteadyObservation&) = delete;
    SteadyObservation& operator=(SteadyObservation&&) = delete;

    /// Waits for the next event.
    Event next();

    /// The element of the event.
    const ObsTreeObserveChangeSet& element() const { return m_stream.element(); }

    /// Whether content, or that there is none, has been reported.
    bool hasContent() const { return m_hasContent; }

    /// How the stream of the pattern has ended.
    const grpc::Status& status() const { return m_stream.status(); }

    /// Makes both streams end. Callable from any thread.
    void cancel();

private:
    Event eventOfElement();
    void onProbeAnswered();

    const std::unique_ptr<grpc::CompletionQueue> m_queue;
    ObserveStream m_stream;
    ObserveStream m_probe;
    bool m_hasElement = false;  // of the last event; the next one is still to be read
    bool m_hasContent = false;
    bool m_isProbeUseless = false;  // the stream itself has said something
    /// When an observation without an element is one without content.
    std::chrono::system_clock::time_point m_graceEnd;
};

}  // namespace Hox::ObserverTree
