#pragma once

#include <string>
#include <utility>
#include <vector>

#include "exit_code.h"
#include "session.h"
#include "state_client.h"

namespace Hox::Ctl {

/// Prints archived reports, the oldest first.
class ReportListCommand {
public:
    /// What the user has asked for; what is empty or 0 does not restrict the list.
    struct Options {
        std::string severity;  ///< At least as severe as this.
        std::string type;      ///< A regular expression that is found in the type.
        std::string service;   ///< From this service.
        int last = 0;          ///< So many of them, the newest.
        std::string since;     ///< Not older than this.
    };

    explicit ReportListCommand(Options options) : m_options(std::move(options)) {}

    /// Throws CtlError.
    ExitCode run(Session& session) const;

private:
    StateClient::Query queryAt(std::chrono::system_clock::time_point now) const;
    void restrict(std::vector<StateClient::Stored>& reports) const;

    Options m_options;
};

}  // namespace Hox::Ctl
