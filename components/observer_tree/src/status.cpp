#include "hox/observer_tree/status.h"

#include "hox/cpputil/assertion/assertion.h"

namespace Hox::ObserverTree {

Status::Status() : Status(ProtoStatus::OK, std::string()) {}

Status::Status(ProtoStatus::StatusCode statusCode, const std::string& errorMessage) {
    // NOLINTNEXTLINE(readability-container-size-empty): the text of the report is settled.
    HOX_ASSERT(statusCode != ProtoStatus::OK || errorMessage.size() == 0);
    m_proto.set_statuscode(statusCode);
    if (!errorMessage.empty()) {
        m_proto.set_errormessage(errorMessage);
    }
}

}  // namespace Hox::ObserverTree
