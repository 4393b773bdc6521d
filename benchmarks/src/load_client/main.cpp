#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "load_client/cases.h"

namespace {

using Hox::Benchmarks::CaseOptions;

constexpr auto usage =
    "Usage: halvo-load-client <case> --target <address> --process <id> [--outstanding <n>]\n"
    "           [--observers <n>] [--apart <0|1>] [--connections <n>] [--origins <n>]\n"
    "           [--markers <n>] [--settings <n>] [--saving <0|1>] [--time <milliseconds>] "
    "[--writer <address>]\n"
    "           [--type <type of the reports>] [--rate <calls per second>]\n"
    "Cases: fill fill-configuration create arrivals create-paced current-state notifications delay "
    "deliveries snapshot\n"
    "       memory update-configuration configuration-snapshot create-delay\n"
    "Prints the figures as one line of JSON.\n";

CaseOptions parseOptions(int argc, char** argv) {
    CaseOptions options;
    const std::map<std::string, std::function<void(const std::string&)>> setters{
        {"--target", [&](const auto& value) { options.target = value; }},
        {"--writer", [&](const auto& value) { options.writer = value; }},
        {"--type", [&](const auto& value) { options.type = value; }},
        {"--rate", [&](const auto& value) { options.rate = std::stoi(value); }},
        {"--process", [&](const auto& value) { options.process = std::stoi(value); }},
        {"--outstanding", [&](const auto& value) { options.outstanding = std::stoul(value); }},
        {"--observers", [&](const auto& value) { options.observers = std::stoul(value); }},
        {"--connections", [&](const auto& value) { options.connections = std::stoul(value); }},
        {"--apart", [&](const auto& value) { options.isApart = std::stoi(value) != 0; }},
        {"--origins", [&](const auto& value) { options.origins = std::stoi(value); }},
        {"--settings", [&](const auto& value) { options.settings = std::stoi(value); }},
        {"--saving", [&](const auto& value) { options.isSaving = std::stoi(value) != 0; }},
        {"--markers", [&](const auto& value) { options.markers = std::stoi(value); }},
        {"--time",
         [&](const auto& value) { options.time = std::chrono::milliseconds(std::stol(value)); }},
    };
    for (int i = 2; i + 1 < argc; i += 2) {
        const auto setter = setters.find(argv[i]);
        if (setter == setters.end()) {
            throw std::runtime_error(std::string("Unknown option ") + argv[i]);
        }
        setter->second(argv[i + 1]);
    }
    return options;
}

void print(const Hox::Benchmarks::Figures& figures) {
    const char* separator = "{";
    for (const auto& [name, value] : figures) {
        std::printf("%s\"%s\": %.3f", separator, name.c_str(), value);
        separator = ", ";
    }
    std::puts("}");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc % 2 != 0) {
        std::fputs(usage, stderr);
        return EXIT_FAILURE;
    }
    try {
        Hox::Benchmarks::Cases cases(parseOptions(argc, argv));
        print(cases.run(argv[1]));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
