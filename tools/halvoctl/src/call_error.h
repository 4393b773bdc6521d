#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/support/status.h>

#include <string>

#include "ctl_error.h"

namespace Hox::Ctl {

/// A call has failed: the service refused it, was not reached, or did not answer in time.
class CallError : public CtlError {
public:
    /// Takes a status that is not OK, with the context and the channel of its call, which show
    /// whether the status comes from the service or from the own side of the connection.
    CallError(const grpc::Status& status, const grpc::ClientContext& context,
              grpc::Channel& channel, const std::string& endpoint);

    /// The status of a call that is answered by the service, without its context.
    explicit CallError(const grpc::Status& status);

    /// The code of the status.
    grpc::StatusCode statusCode() const { return m_statusCode; }

    /// Whether nobody knows if the service has done what it was asked for.
    bool isOutcomeOpen() const;

    /// The same refusal with a hint.
    CallError withHint(const std::string& hint) const;

private:
    CallError(const grpc::Status& status, bool isAnswer, const std::string& endpoint);
    CallError(grpc::StatusCode statusCode, ExitCode code, const std::string& text,
              const std::string& hint);

    grpc::StatusCode m_statusCode;
};

/// The name of a status code, as in INVALID_ARGUMENT.
std::string nameOf(grpc::StatusCode code);

}  // namespace Hox::Ctl
