#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "interrupt.h"
#include "response_stream.h"

namespace Hox::Ctl {

/// The calls of one service. Methods are named by path, as in /pkg.Service/method, and messages may
/// be of types that the program was not built with. Any number of threads may call.
class Connection {
public:
    /// Gets the path and the request of each call before it is sent.
    using Trace = std::function<void(const std::string& path, const google::protobuf::Message&)>;

    /// Calls end after this time, or with the interrupt, which must outlive this object.
    Connection(std::string endpoint, std::shared_ptr<grpc::Channel> channel, Interrupt& interrupt,
               std::chrono::milliseconds timeout, Trace trace);

    /// Where the service listens, as host:port, also if the user has named it in another way.
    const std::string& endpoint() const { return m_endpoint; }

    /// The channel of all calls.
    const std::shared_ptr<grpc::Channel>& channel() const { return m_channel; }

    /// How long a call may take.
    std::chrono::milliseconds timeout() const { return m_timeout; }

    /// Calls a method with a single answer. Throws CallError if the service refuses it, is not
    /// reached or does not answer in time, and CtlError if the user ends the command.
    void call(const std::string& path, const google::protobuf::Message& request,
              google::protobuf::Message& response) const;

    /// Starts a call with a stream of answers; it has no time limit. The element is an empty
    /// message of the type of the elements.
    std::unique_ptr<ResponseStream> open(const std::string& path,
                                         const google::protobuf::Message& request,
                                         std::unique_ptr<google::protobuf::Message> element) const;

    /// Prepares a call's context: the time limit. It is cancelled with the interrupt as long as the
    /// returned handle exists.
    std::shared_ptr<void> limit(grpc::ClientContext& context) const;

    /// Throws the error of a call that has failed.
    [[noreturn]] void fail(const grpc::Status& status, const grpc::ClientContext& context) const;

private:
    std::string m_endpoint;
    std::shared_ptr<grpc::Channel> m_channel;
    Interrupt& m_interrupt;
    std::chrono::milliseconds m_timeout;
    Trace m_trace;
};

}  // namespace Hox::Ctl
