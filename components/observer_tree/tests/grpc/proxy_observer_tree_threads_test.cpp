// Observations of one proxy that start and end on several threads at the same time.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "grpc/served_tree.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/testing/log_capture.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::LogCapture;

/// A proxy of a tree in this process.
std::shared_ptr<GrpcProxyObserverTree> proxyOf(ServedTree<TestService>& served,
                                               const std::shared_ptr<std::mutex>& mutex) {
    return AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<TestService>(
        served.server->InProcessChannel(grpc::ChannelArguments()), mutex,
        std::make_shared<InProcessGate>());
}

/// Requests of observers whose streams could not be started.
using Requests = std::vector<ObserveReq>;

TEST(ProxyTreeThreads, ObservationsComeWhileOthersGo) {
    ServedTree<TestService> served;
    const auto proxy = proxyOf(served, std::make_shared<std::mutex>());
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&proxy] {
            const Requests requests(100);
            for (int round = 0; round < 500; ++round) {
                for (const auto& request : requests) {
                    proxy->addRemoteObservation(request, {});
                }
                for (const auto& request : requests) {
                    proxy->removeRemoteObservation(&request);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

/// A callback ends many observations while the proxy is destroyed.
void destroyWhileObservationsEnd(ServedTree<TestService>& served) {
    const Requests requests(2000);
    const auto mutex = std::make_shared<std::mutex>();
    auto proxy = proxyOf(served, mutex);
    for (const auto& request : requests) {
        proxy->addRemoteObservation(request, {});
    }
    std::promise<void> entered;
    std::any handle;
    {
        ObserveReq everything;
        everything.set_key_pattern("/**");
        const std::lock_guard<std::mutex> lock(*mutex);
        handle = proxy->observe<ObserveReq>(
            "/items", everything,
            [&, tree = proxy.get()](const auto&, const auto&) {
                entered.set_value();
                for (const auto& request : requests) {
                    tree->removeRemoteObservation(&request);
                }
                handle.reset();
            },
            0);
    }
    served.create("a");
    entered.get_future().wait();
    proxy.reset();
}

TEST(ProxyTreeThreads, ObservationsEndWhileTheProxyIsDestroyed) {
    const LogCapture silence("AsyncGrpcClientHandler", spdlog::level::off);
    for (int round = 0; round < 20; ++round) {
        ServedTree<TestService> served;
        destroyWhileObservationsEnd(served);
    }
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
