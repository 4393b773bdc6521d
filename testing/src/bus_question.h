#pragma once

#include <optional>
#include <string>

namespace Hox::Testing {

/// A method of a service on a bus that answers with one number or truth value.
struct BusQuestion {
    std::string destination;
    std::string path;
    std::string interface;
    std::string member;
    std::optional<std::string> argument;
};

/// Asks; nothing if there is no bus, no service, or no answer of that kind within a
/// second.
std::optional<int> askBus(const std::string& address, const BusQuestion& question);

}  // namespace Hox::Testing
