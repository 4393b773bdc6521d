#pragma once

#include <cstdint>
#include <string>

namespace Hox::Capability::Configuration {

/// What a client of the central store knows of its slice.
struct SliceState {
    std::string stateId;           ///< The last known one; empty if there is none.
    std::uint64_t storeCount = 0;  ///< How often the client has changed the slice.
    std::uint64_t refusals = 0;    ///< How often its change was refused because others were first.
};

}  // namespace Hox::Capability::Configuration
