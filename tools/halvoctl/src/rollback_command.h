#pragma once

#include <string>
#include <utility>

#include "confirm_record.h"
#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Reverts a change that waits for its confirmation.
class RollbackCommand {
public:
    /// What the user, or the timer of the change, has asked for.
    struct Options {
        std::string id;             ///< The change; empty: the only one.
        bool isSure = false;        ///< Whether to do it without asking.
        bool isAuto = false;        ///< Whether its time is over and nobody can be asked.
        std::string after = "0";    ///< The time until then.
        std::string retry = "10m";  ///< How long a service that is away is looked for then.
    };

    explicit RollbackCommand(Options options) : m_options(std::move(options)) {}

    /// Reverts it and removes its record. If other changes would be lost, it asks first; when its
    /// time is over it reports an ERROR instead, and the record stays. Throws CtlError.
    ExitCode run(Session& session) const;

private:
    ExitCode runByHand(const Session& session) const;
    ExitCode runAtTimeOut(const Session& session) const;
    bool waitForTime(const Session& session) const;
    void complainLate(const Session& session, const std::string& reason) const;
    ExitCode tryOnce(const Session& session) const;

    Options m_options;
};

}  // namespace Hox::Ctl
