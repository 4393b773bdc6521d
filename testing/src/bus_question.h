#pragma once

#include <optional>
#include <string>

namespace Hox::Testing {

/// A method of somebody on a bus that answers with one number or truth value.
struct BusQuestion {
    std::string destination;
    std::string path;
    std::string interface;
    std::string member;
    std::optional<std::string> argument;
};

/// Asks; nothing where there is no bus, nobody to answer, or no answer of that kind within a
/// second.
std::optional<int> askBus(const std::string& address, const BusQuestion& question);

}  // namespace Hox::Testing
