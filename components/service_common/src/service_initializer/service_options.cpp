#include "service_initializer/service_options.h"

#include <cxxopts.hpp>
#include <iostream>
#include <string>

#include "hox/cpputil/log/source_location.h"

namespace Hox::Service {

namespace {

bool stopWithHelp(LumServiceCtx& ctx) {
    std::cout << ctx.getOptions().help() << std::endl;
    return false;
}

}  // namespace

void addServiceOptions(LumServiceCtx& ctx) {
    const auto text = [] { return cxxopts::value<std::string>(); };
    ctx.getOptions().add_options(
        "service",
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

bool parseServiceOptions(int argc, const char* const* argv, LumServiceCtx& ctx,
                         spdlog::logger& logger) {
    try {
        ctx.parseOptions(argc, argv);
    } catch (const cxxopts::exceptions::exception& error) {
        logger.log(Log::here(), spdlog::level::err, "{}", error.what());
        return stopWithHelp(ctx);
    }
    if (ctx.optionCount("help") > 0 || ctx.optionCount("port") == 0) {
        return stopWithHelp(ctx);
    }
    if (ctx.optionCount("extport") == 0) {
        return true;
    }
    const int port = std::stoi(ctx.optionValue("port"));
    const int externalPort = std::stoi(ctx.optionValue("extport"));
    return port != externalPort || stopWithHelp(ctx);
}

}  // namespace Hox::Service
