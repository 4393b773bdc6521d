#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace Hox::Ctl {

/// What the user has chosen for all commands.
struct GlobalOptions {
    /// How a result is printed.
    enum class Format {
        Table,      ///< For a reader.
        Json,       ///< One JSON value; of a stream one per line.
        JsonLines,  ///< One JSON value per line.
    };

    std::vector<std::string> endpoints;   ///< As host:port or mdns:CAPABILITY[/ID].
    Format format = Format::Table;        ///< How a result is printed.
    std::chrono::milliseconds timeout{};  ///< How long a call may take.
    std::string protoset;                 ///< A file with proto files; empty: ask the service.
    bool isQuiet = false;                 ///< No notes on the error output.
    bool isVerbose = false;               ///< Requests on the error output.
    bool hasColor = false;                ///< Colours in tables.
};

}  // namespace Hox::Ctl
