#pragma once

#include <string>

#include "connection.h"
#include "session.h"

namespace Hox::Ctl {

/// What the tool reports about changes that were to revert by themselves: one origin,
/// halvoctl/Confirmation/conf/confirm.
class ConfirmReport {
public:
    /// Both must outlive this object.
    ConfirmReport(const Session& session, const Connection& connection)
        : m_session(session), m_connection(connection) {}

    /// Reports an ERROR. Throws CtlError if that fails.
    void complain(const std::string& text, const std::string& info) const;

    /// Reports OK if an ERROR is the last report and no other change of the service has expired.
    /// Never throws, except for the end that the user wants: what the report is about is done.
    void settle(const std::string& text) const;

private:
    bool isComplaint() const;
    bool hasExpiredChange() const;

    const Session& m_session;
    const Connection& m_connection;
};

}  // namespace Hox::Ctl
