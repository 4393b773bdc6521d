#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "bare_server/bare_server.h"

namespace {

volatile std::sig_atomic_t isToEnd = 0;

void onSignal(int /*signal*/) {
    isToEnd = 1;
}

}  // namespace

int main(int argc, char** argv) {
    const bool hasReports = argc == 4 && std::string(argv[3]) == "reports";
    if (argc != 3 && !hasReports) {
        std::fputs("Usage: halvo-bare-server <port> <keys of the large snapshot> [reports]\n",
                   stderr);
        return EXIT_FAILURE;
    }
    try {
        std::signal(SIGTERM, onSignal);
        std::signal(SIGINT, onSignal);
        Hox::Benchmarks::BareServer server(std::string("127.0.0.1:") + argv[1], std::stoi(argv[2]),
                                           hasReports);
        server.run(isToEnd);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
