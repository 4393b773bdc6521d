#pragma once

#include <chrono>
#include <functional>
#include <istream>
#include <ostream>
#include <string>

#include "channel.h"
#include "interrupt.h"

namespace Hox::Ctl {

/// What a command gets from the process that runs it. All of it outlives the command.
struct Surroundings {
    std::istream& in;        ///< Where requests are read from.
    std::ostream& out;       ///< Where results go.
    std::ostream& err;       ///< Where everything else goes.
    Interrupt& interrupt;    ///< Ends the command.
    ChannelFactory channel;  ///< Makes the channels.
    std::function<std::chrono::system_clock::time_point()> clock;     ///< The time of day.
    std::function<std::string(const std::string& name)> environment;  ///< Empty: not set.
    bool isInTerminal = false;   ///< Whether a user can answer questions.
    bool isOutTerminal = false;  ///< Whether the result is seen on a terminal.
};

}  // namespace Hox::Ctl
