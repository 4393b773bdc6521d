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

/// How bad the outcome is: what the user must know first has the highest number.
constexpr int badness(ExitCode code) {
    switch (code) {
        case ExitCode::Done:
            return 0;
        case ExitCode::No:
            return 1;
        case ExitCode::Usage:
            return 2;
        case ExitCode::Refused:
            return 3;
        case ExitCode::Unreachable:
            return 4;
        default:
            return 5;
    }
}

/// The outcome of two, of which the worse one counts.
constexpr ExitCode worseOf(ExitCode one, ExitCode other) {
    return badness(one) < badness(other) ? other : one;
}

}  // namespace Hox::Ctl
