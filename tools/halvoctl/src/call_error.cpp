#include "call_error.h"

#include <array>
#include <cstddef>

#include "obstree.pb.h"
#include "printable.h"

namespace Hox::Ctl {

namespace {

/// gRPC marks a status that has crossed the network; one that it made itself has other texts.
bool isFromService(const grpc::ClientContext& context) {
    return context.debug_error_string().find("Error received from peer") != std::string::npos;
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
                     const std::string& endpoint)
    : CallError(status.error_code(), exitCodeOf(status, isFromService(context)), textOf(status),
                isFromService(context) ? "" : "the endpoint is " + endpoint) {}

CallError::CallError(const grpc::Status& status)
    : CallError(status.error_code(), exitCodeOf(status, true), textOf(status), "") {}

CallError::CallError(grpc::StatusCode statusCode, ExitCode code, const std::string& text,
                     const std::string& hint)
    : CtlError(code, text, hint), m_statusCode(statusCode) {}

CallError CallError::withHint(const std::string& hint) const {
    return {m_statusCode, code(), what(), hint};
}

std::string nameOf(grpc::StatusCode code) {
    const auto& name = ObserverTree::ProtoStatus::StatusCode_Name(
        static_cast<ObserverTree::ProtoStatus::StatusCode>(code));
    return name.empty() ? std::to_string(static_cast<int>(code)) : name;
}

}  // namespace Hox::Ctl
