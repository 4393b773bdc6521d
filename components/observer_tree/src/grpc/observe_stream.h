#pragma once

#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/async_stream.h>

#include <memory>
#include <string>

#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// One stream of an observe method, whose end is known with the status that the peer gives.
///
/// Used by the thread that reads the queue; its events carry this object's address.
class ObserveStream {
public:
    /// What an event means.
    enum class News { None, Element, End };

    /// Starts the call. It must have ended before the method, and this object before the queue.
    ObserveStream(grpc::CompletionQueue& queue, grpc::ChannelInterface& channel,
                  const OwnedRpcMethod& method, const std::string& keyPattern);

    /// Handles an event of this stream; End is the last one.
    News take(bool isOk);

    /// What has arrived, until readNext() is called for the next one.
    const ObsTreeObserveChangeSet& element() const { return m_element; }
    void readNext();

    bool hasEnded() const { return m_phase == Phase::Ended; }

    /// Of the ended stream.
    const grpc::Status& status() const { return m_status; }

    /// Makes the stream end; may be repeated. Callable from any thread.
    void cancel() { m_context.TryCancel(); }

private:
    enum class Phase { Starting, Reading, Ending, Ended };

    Phase m_phase = Phase::Starting;
    grpc::ClientContext m_context;
    ObsTreeObserveChangeSet m_element;
    grpc::Status m_status;
    /// In the arena of the call: destroyed before the context.
    std::unique_ptr<grpc::ClientAsyncReader<ObsTreeObserveChangeSet>> m_reader;
};

}  // namespace Hox::ObserverTree
