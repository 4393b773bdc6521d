#pragma once

#include <google/protobuf/message.h>

#include <istream>
#include <memory>
#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Calls any method of a service with a request in JSON.
class CallCommand {
public:
    /// What the user has asked for.
    struct Options {
        std::string method;  ///< The end of the method's full name.
        std::string data =
            "{}";              ///< The request, "@" and a file that has it, or "-" for the input.
        bool isOwner = false;  ///< Whether a slice may be observed.
    };

    explicit CallCommand(Options options) : m_options(std::move(options)) {}

    /// Sends the request, unless it must not be sent, and prints the answer; of a stream one line
    /// per answer, until it ends. Throws CtlError.
    ExitCode run(Session& session) const;

private:
    std::string textOfRequest(std::istream& in) const;

    Options m_options;
};

}  // namespace Hox::Ctl
