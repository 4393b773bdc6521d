#pragma once

#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints the severity of each endpoint, with the reports that decide it. Returns No if one is at
/// least as severe as failOn, unless that is empty, and Unreachable if one was not reached.
ExitCode showState(Session& session, const std::string& failOn);

/// A report as the user writes it.
struct ReportWords {
    std::string origin;           ///< Service, type and source, separated by slashes.
    std::string severity = "ok";  ///< The name of the severity.
    std::string text;             ///< The message for the operator.
    std::string info;             ///< More detail.
};

/// Stores a report with the time of now.
ExitCode report(Session& session, const ReportWords& words);

/// Reports OK for an origin that has reported before. Throws CtlError if it has not.
ExitCode reportOk(Session& session, const ReportWords& words);

}  // namespace Hox::Ctl
