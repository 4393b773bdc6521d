#include "call_error.h"

#include <array>
#include <cstddef>

#include "obstree.pb.h"
#include "printable.h"

namespace Hox::Ctl {

namespace {

/// Whether gRPC itself gives the code to a call whose connection is lost.
bool isCodeOfLoss(grpc::StatusCode code) {
    return code == grpc::StatusCode::UNAVAILABLE || code == grpc::StatusCode::CANCELLED ||
           code == grpc::StatusCode::UNKNOWN || code == grpc::StatusCode::INTERNAL;
}

/// gRPC marks a status that has crossed the network, but also that of a stream which was open when
/// its connection broke. Then the channel is not ready any more.
bool isFromService(const grpc::Status& status, const grpc::ClientContext& context,
                   grpc::Channel& channel) {
    const bool isMarked =
        context.debug_error_string().find("Error received from peer") != std::string::npos;
    return isMarked &&
           (!isCodeOfLoss(status.error_code()) || channel.GetState(false) == GRPC_CHANNEL_READY);
}

ExitCode exitCodeOf(const grpc::Status& status, bool isAnswer) {
    if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
        return ExitCode::Unreachable;
    }
    return isAnswer ? ExitCode::Refused : ExitCode::Unreachable;
}

std::string textOf(const grpc::Status& status) {
    return nameOf(status.error_code()) + ": " + printable(status.error_message());
}

}  // namespace

CallError::CallError(const grpc::Status& status, const grpc::ClientContext& context,
                     grpc::Channel& channel, const std::string& endpoint)
    : CallError(status, isFromService(status, context, channel), endpoint) {}

CallError::CallError(const grpc::Status& status, bool isAnswer, const std::string& endpoint)
    : CallError(status.error_code(), exitCodeOf(status, isAnswer), textOf(status),
                isAnswer ? "" : "the endpoint is " + endpoint) {}

CallError::CallError(const grpc::Status& status)
    : CallError(status.error_code(), exitCodeOf(status, true), textOf(status), "") {}

CallError::CallError(grpc::StatusCode statusCode, ExitCode code, const std::string& text,
                     const std::string& hint)
    : CtlError(code, text, hint), m_statusCode(statusCode) {}

bool CallError::isOutcomeOpen() const {
    // A service says INTERNAL before it changes anything.
    return code() != ExitCode::Refused ||
           (isCodeOfLoss(m_statusCode) && m_statusCode != grpc::StatusCode::INTERNAL);
}

CallError CallError::withHint(const std::string& hint) const {
    return {m_statusCode, code(), what(), hint};
}

std::string nameOf(grpc::StatusCode code) {
    const auto& name = ObserverTree::ProtoStatus::StatusCode_Name(
        static_cast<ObserverTree::ProtoStatus::StatusCode>(code));
    return name.empty() ? std::to_string(static_cast<int>(code)) : name;
}

}  // namespace Hox::Ctl
