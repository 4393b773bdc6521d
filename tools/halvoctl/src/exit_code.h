#pragma once

namespace Hox::Ctl {

/// The exit status of the program.
enum class ExitCode {
    Done = 0,           ///< The command has done what it was asked for.
    Usage = 1,          ///< Wrong usage, or refused before anything was sent.
    Unreachable = 2,    ///< The service was not reached, or did not answer in time.
    Refused = 3,        ///< The service refused the request.
    No = 4,             ///< The answer to the question is "no".
    Interrupted = 130,  ///< The user ended the command.
};

}  // namespace Hox::Ctl
