#pragma once

#include <string>
#include <vector>

#include "session.h"

namespace Hox::Ctl {

/// The names that a service has now, for the completion of a command line.
class LiveNames {
public:
    /// Asks the service of the session, as long as the interrupt lets it. Both must outlive this
    /// object.
    LiveNames(const Session& session, Interrupt& interrupt)
        : m_session(session), m_interrupt(interrupt) {}

    /// The names for a place of the command line, as in GLOB or METHOD; none for other places. Of
    /// keys that begin with `start` only the next component. Throws CtlError.
    std::vector<std::string> at(const std::string& place, const std::string& start) const;

private:
    std::vector<std::string> methods(const Connection& connection) const;
    std::vector<std::string> keys(const Connection& connection, const std::string& start) const;

    const Session& m_session;
    Interrupt& m_interrupt;
};

}  // namespace Hox::Ctl
