#pragma once

#include <string>

namespace Hox::Service {

/// The capability types of the appliance. The numbers are fixed across all its services.
enum class CapabilityType : int {
    StreamRouter = 0,
    ServiceRouter = 1,
    LogControl = 2,
    ServiceSupervisor = 3,
    HttpDocroot = 4,
    RestGw = 5,
    Tuner = 6,
    SiPsi = 7,
    RfOutput = 8,
    TsSubscription = 9,
    IpInput = 10,
    IpOutput = 11,
    HttpFileUpload = 12,
    SwUpdate = 13,
    StateMonitoringUservice = 14,
    StateMonitoringNode = 15,
    StateMonitoringSystem = 16,
    RfInput = 17,
    Configuration = 18,
    Cam = 19,
    SystemConfig = 20,
    TimeController = 21,
    DvbManager = 22,
    Eit = 23,
    Introspection = 24,
    Reserved = 25,
    Epg = 26,
    TsStats = 27,
    Scrambler = 28,
    VsecureClientHandler = 29,
    Stacking = 30,
    MediaPlayer = 31
};

/// The text of a capability type, as used in publications and log lines. Throws
/// InvalidArgumentError for a number outside the catalogue. Callable from any thread.
std::string capabilityName(int id);

}  // namespace Hox::Service
