#pragma once

#include <string>
#include <utility>
#include <vector>

#include "confirm_records.h"
#include "exit_code.h"
#include "logger_client.h"
#include "output.pb.h"
#include "session.h"

namespace Hox::Ctl {

/// Sets the level of loggers, for good or for some time.
class LogLevelCommand {
public:
    /// What the user has asked for.
    struct Options {
        std::string pattern = "*";  ///< A pattern as in a shell, of short or whole names.
        std::string level;          ///< The name of the level.
        std::string time;           ///< For how long; empty: until the service ends.
    };

    explicit LogLevelCommand(Options options) : m_options(std::move(options)) {}

    /// Sets the level of the loggers that match, and prints each whose level is another one now. A
    /// logger whose level is set for some time already has its level of before that put back at the
    /// end of the new time, or never if it has none. Throws CtlError.
    ExitCode run(Session& session) const;

private:
    LoggerChangeList changesOf(const Session& session, const LoggerClient::Loggers& loggers,
                               const std::vector<PendingConfirmation>& pending) const;
    void print(const Session& session, const LoggerChangeList& changes) const;

    Options m_options;
};

/// Puts back the levels of loggers, except those that somebody has set to another level meanwhile.
/// Throws CtlError if a call fails; a second call does the rest.
void putLevelsBack(const LoggerClient& client,
                   const google::protobuf::RepeatedPtrField<LoggerChange>& loggers);

}  // namespace Hox::Ctl
