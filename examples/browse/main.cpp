// Lists the head-end services on the network, each resolved, and follows changes until Ctrl-C.
#include <condition_variable>
#include <csignal>
#include <iostream>
#include <queue>

#include "hox/service_discovery/avahi/avahi_service_discovery_client.h"
using namespace Hox::Service::Discovery;

int main() try {
    std::signal(SIGINT, [](int) { std::_Exit(0); });  // the daemon then drops all requests
    std::mutex mutex;
    std::condition_variable arrival;
    std::queue<std::pair<Status, NetworkService>> events;
    const auto pass = [&](const Status& status, const NetworkService& service) {
        const std::lock_guard lock(mutex);
        events.emplace(status, service);
        arrival.notify_one();
    };
    Avahi::AvahiServiceDiscoveryClient client;
    client.setCallback([](const Status&) { std::_Exit(1); });  // the daemon is lost
    client.start();                                            // waits for the mDNS daemon
    const auto browsing = client.resolver().browse(NetworkServiceType("capability"), pass, -1);
    for (std::unique_lock lock(mutex);; lock.lock()) {
        arrival.wait(lock, [&] { return !events.empty(); });
        const auto [event, seen] = std::move(events.front());
        events.pop();
        lock.unlock();
        std::cout << (event == ServiceFound ? "appeared " : "vanished ") << seen.name << std::endl;
        if (event != ServiceFound)
            continue;
        auto request = client.resolver().resolve(seen.name, seen.type, seen.interfaceIndex);
        const auto [outcome, found] = request.content().get();  // pass could not wait for it
        std::cout << (outcome == ServiceResolved ? "resolved " : "not found ") << found.name << " "
                  << found.address << ":" << found.port << std::endl;
    }
} catch (const std::exception& error) {  // the daemon was lost during a question
    std::cerr << error.what() << std::endl;
    return 1;
}
