#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_stream.h>

#include <chrono>
#include <memory>
#include <string>

#include "interrupt.h"

namespace Hox::Ctl {

class Connection;

/// A running call with a stream of answers, read by one thread, which may stop waiting at any time
/// without losing an element. Dropping it cancels the call.
class ResponseStream {
public:
    /// What `next` has found.
    enum class Event {
        Element,  ///< The next element has arrived.
        Nothing,  ///< Nothing has happened until the deadline.
        End,      ///< The call is over; all elements have been read.
    };

    /// Starts the call. The connection and the interrupt, which cancels the call, must outlive it.
    ResponseStream(const Connection& connection, Interrupt& interrupt, std::string path,
                   const google::protobuf::Message& request,
                   std::unique_ptr<google::protobuf::Message> element);
    ~ResponseStream();
    ResponseStream(const ResponseStream&) = delete;
    ResponseStream& operator=(const ResponseStream&) = delete;

    /// Waits for the next element until the deadline.
    Event next(std::chrono::system_clock::time_point deadline);

    /// The last element; valid until the following call of `next`.
    const google::protobuf::Message& element() const { return *m_element; }

    /// The outcome of the call, after its end.
    const grpc::Status& status() const { return m_status; }

    /// Throws the error of a call that has ended with one.
    void check() const;

private:
    /// The event of the queue that this object waits for.
    enum class Step { Start, Read, Finish, Ended };

    void requestNext();

    const Connection& m_connection;
    std::string m_path;
    grpc::ClientContext m_context;
    grpc::CompletionQueue m_queue;
    grpc::Status m_status;
    std::unique_ptr<google::protobuf::Message> m_element;
    std::unique_ptr<grpc::ClientAsyncReader<google::protobuf::Message>> m_reader;
    std::shared_ptr<void> m_cancellation;
    Step m_step = Step::Start;
    bool m_isRequested = true;
};

}  // namespace Hox::Ctl
