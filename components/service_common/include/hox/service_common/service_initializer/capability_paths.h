#pragma once

#include <string>

namespace Hox::Service {

/// The locations of a capability's data.
struct CapabilityPaths {
    /// Address of the central store, empty unless given on the command line.
    std::string ccsAddress;
    /// Address of the EPG server, empty unless given on the command line: the option's default is
    /// not used.
    std::string epgAddress;
    /// Directory of the capability's configuration.
    std::string confPath;
    /// Directory of the capability's state.
    std::string statePath;
};

}  // namespace Hox::Service
