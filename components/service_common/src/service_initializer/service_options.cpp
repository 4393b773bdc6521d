#include "service_initializer/service_options.h"

#include <algorithm>
#include <cxxopts.hpp>
#include <iostream>
#include <string>

namespace Hox::Service {

namespace {

constexpr const char* serviceGroup = "service";

}  // namespace

void addServiceOptions(LumServiceCtx& ctx) {
    const auto text = [] { return cxxopts::value<std::string>(); };
    ctx.getOptions().add_options(
        serviceGroup,
        {
            {"port", "The service listener port. This is a Mandatory option.", text()},
            {"extport",
             "The secure external service listener port. Must differ from \"port\". This is not a "
             "Mandatory option.",
             text()},
            {"c,configdir", "Use configuration files from directory. Defaults to /var/lib/halvo",
             text()->default_value("/var/lib/halvo")},
            {"id", "The unique service id. This is a Mandatory option.", text()},
            {"ccsaddr",
             "The address of the central conf store, if not set a central conf store is not used",
             text()},
            {"epgaddr", "The address of the epg server. Defaults to localhost:5004",
             text()->default_value("localhost:5004")},
            {"dispatcheraddr", "The address of the dispatcher. Defaults to localhost:5000",
             text()->default_value("localhost:5000")},
            {"hendaddr", "The address of the headend. Defaults to localhost:5001",
             text()->default_value("localhost:5001")},
            {"logstdout", "Log to stdout", cxxopts::value<bool>()},
        });
}

void printHelp(LumServiceCtx& ctx) {
    // The library keeps the groups unordered: the service's own options come first.
    auto groups = ctx.getOptions().groups();
    std::stable_partition(groups.begin(), groups.end(),
                          [](const std::string& group) { return group == serviceGroup; });
    std::cout << ctx.getOptions().help(groups) << std::endl;
}

}  // namespace Hox::Service
