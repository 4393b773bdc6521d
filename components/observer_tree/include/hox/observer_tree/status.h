#pragma once

#include <string>

#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// The outcome of an operation: a ProtoStatus that never carries a text if it is OK.
///
/// Holds the generated message, whose class is final, instead of deriving from it.
class Status {
public:
    /// OK.
    Status();

    /// Asserts that an OK status has no text.
    Status(ProtoStatus::StatusCode statusCode, const std::string& errorMessage);

    /// Whether the code is OK.
    bool isOk() const { return m_proto.statuscode() == ProtoStatus::OK; }
    /// The code; its number is that of gRPC.
    ProtoStatus::StatusCode statusCode() const { return m_proto.statuscode(); }
    /// The text, empty if OK; valid as long as this object.
    const std::string& errorMessage() const { return m_proto.errormessage(); }

    /// The form used on an observe stream.
    const ProtoStatus& proto() const { return m_proto; }

private:
    ProtoStatus m_proto;
};

}  // namespace Hox::ObserverTree
