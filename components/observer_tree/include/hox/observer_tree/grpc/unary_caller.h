#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/channel.h>

#include <functional>
#include <memory>
#include <mutex>

#include "hox/observer_tree/grpc/in_process_gate.h"
#include "hox/observer_tree/grpc/owned_rpc_method.h"

namespace grpc {
class CompletionQueue;
}  // namespace grpc

namespace Hox::ObserverTree {

/// Makes unary calls on one channel. Each call blocks its caller's thread until the answer arrives,
/// without a deadline.
///
/// Calls inside the process take turns on one queue and so need no new descriptors: they must not
/// fail because connections have used up all descriptors.
class UnaryCaller {
public:
    /// The gate is that of the process's own server, or null for a channel to another process.
    UnaryCaller(std::shared_ptr<grpc::Channel> channel, std::shared_ptr<InProcessGate> gate);

    /// No call may be in flight.
    ~UnaryCaller();
    UnaryCaller(const UnaryCaller&) = delete;
    UnaryCaller(UnaryCaller&&) = delete;
    UnaryCaller& operator=(const UnaryCaller&) = delete;
    UnaryCaller& operator=(UnaryCaller&&) = delete;

    /// Makes the call and returns its outcome. UNAVAILABLE if the gate is closed; a call that is in
    /// flight when it closes continues until it is answered or the server cancels it. Callable from
    /// any thread that holds no lock that the serving side needs.
    grpc::Status call(const OwnedRpcMethod& method, const google::protobuf::Message& request,
                      google::protobuf::Message& response);

    /// The same on a channel to another process, and cancels the call if `mustEnd` is true before
    /// the answer arrives; asks several times a second, on the caller's thread.
    grpc::Status call(const OwnedRpcMethod& method, const google::protobuf::Message& request,
                      google::protobuf::Message& response, const std::function<bool()>& mustEnd);

private:
    grpc::Status callInProcess(const OwnedRpcMethod& method,
                               const google::protobuf::Message& request,
                               google::protobuf::Message& response);

    const std::shared_ptr<grpc::Channel> m_channel;
    const std::shared_ptr<InProcessGate> m_gate;
    std::mutex m_queueMutex;                               // held while an in-process call waits
    const std::unique_ptr<grpc::CompletionQueue> m_queue;  // null for a channel to another process
};

}  // namespace Hox::ObserverTree
