#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "exit_code.h"
#include "interrupt.h"

namespace Hox::Ctl {

/// What one run of the tool has left.
struct ToolRun {
    ExitCode code = ExitCode::Done;  ///< The exit status.
    std::string out;                 ///< The result.
    std::string err;                 ///< Everything else.
};

/// The tool in this process, with surroundings of its own.
struct Tool {
    std::string in;                                  ///< What the tool reads.
    std::map<std::string, std::string> environment;  ///< The variables that are set.
    bool isOutTerminal = false;                      ///< Whether the output is a terminal.
    bool isInTerminal = false;                       ///< Whether the input is a terminal.
    std::chrono::system_clock::time_point now{};     ///< The time of day.
    Interrupt interrupt;                             ///< The user's wish to end it.

    /// Runs it once with these words.
    ToolRun run(const std::vector<std::string>& words);
};

}  // namespace Hox::Ctl
