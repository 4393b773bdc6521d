#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/channel.h>

#include <memory>
#include <mutex>

#include "hox/observer_tree/grpc/in_process_gate.h"
#include "hox/observer_tree/grpc/owned_rpc_method.h"

namespace grpc {
class CompletionQueue;
}  // namespace grpc

namespace Hox::ObserverTree {

/// Makes unary calls on one channel, each on the thread of its caller, who waits for the answer
/// without a deadline.
///
/// Calls inside the process take turns on one queue, as they need no descriptors there: one that
/// cannot be made must not fail because connections have used them up.
class UnaryCaller {
public:
    /// The gate is that of the process's own server, null for a channel to another process.
    UnaryCaller(std::shared_ptr<grpc::Channel> channel, std::shared_ptr<InProcessGate> gate);

    /// No call is under way any more.
    ~UnaryCaller();
    UnaryCaller(const UnaryCaller&) = delete;
    UnaryCaller(UnaryCaller&&) = delete;
    UnaryCaller& operator=(const UnaryCaller&) = delete;
    UnaryCaller& operator=(UnaryCaller&&) = delete;

    /// The outcome of the call. UNAVAILABLE once the gate is closed; a call that is under way then
    /// goes on until it is answered or the server cancels it. Any thread, which holds no lock that
    /// the serving side needs.
    grpc::Status call(const OwnedRpcMethod& method, const google::protobuf::Message& request,
                      google::protobuf::Message& response);

private:
    grpc::Status callInProcess(const OwnedRpcMethod& method,
                               const google::protobuf::Message& request,
                               google::protobuf::Message& response);

    const std::shared_ptr<grpc::Channel> m_channel;
    const std::shared_ptr<InProcessGate> m_gate;
    std::mutex m_queueMutex;  // held while a call inside the process waits
    const std::unique_ptr<grpc::CompletionQueue> m_queue;  // null for another process
};

}  // namespace Hox::ObserverTree
