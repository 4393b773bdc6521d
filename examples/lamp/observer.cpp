// Prints the lamps and their changes until Ctrl-C, also when the service restarts.
//   lamp-observer <host:port>
#include <grpcpp/create_channel.h>
#include <hox/cpputil/log/logsystem.h>
#include <hox/cpputil/log/stdout_logger.h>
#include <hox/observer_tree/grpc/steady_observer.h>

#include <csignal>
#include <iostream>

#include "lamp.grpc.pb.h"

using namespace Hox::ObserverTree;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: lamp-observer <host:port>" << std::endl;
        return 1;
    }
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);  // in all threads: sigwait takes it
    Hox::Log::setLogsystem(std::make_unique<Hox::Log::StdoutLogger>(spdlog::level::err));

    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 500);
    arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
    arguments.SetMaxReceiveMessageSize(-1);  // by default an element has at most 4 MiB
    const auto channel =
        grpc::CreateCustomChannel(argv[1], grpc::InsecureChannelCredentials(), arguments);
    const auto mutex = std::make_shared<std::mutex>();
    const auto tree = AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<Lamp::LampService>(
        channel, mutex, nullptr);
    const auto text = [](const DataTreeValPtr& lamp) {
        return lamp ? std::to_string(lamp->get<Lamp::Lamp>().percent()) + " %" : "nothing";
    };
    const SteadyObserver observer(
        tree, mutex, "/lamps", "/lamps/**",
        [text](const std::string& key, const DataTreeValPtr& old, const DataTreeValPtr& current) {
            std::cout << key << ": " << text(old) << " -> " << text(current) << std::endl;
        });
    int signalNumber = 0;
    sigwait(&interrupt, &signalNumber);
}
