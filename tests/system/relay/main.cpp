// Forwards the notifications of two services to each other, as a third service would: by proxy
// trees. Usage: halvo-relay <address> <address>; ends with its standard input. Each line of the
// output reports that a service is observed or lost.
#include <grpcpp/create_channel.h>
#include <spdlog/spdlog.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "state_monitoring.grpc.pb.h"

namespace {

using Hox::ObserverTree::AsyncGrpcProxyObsTreeBuilder;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::GrpcProxyObserverTree;
using Hox::ObserverTree::ObserveReq;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;
namespace Api = Hox::Capability::StateMonitoring::Api;

constexpr const char* ownId = "relay";
constexpr auto step = std::chrono::milliseconds(50);

std::shared_ptr<GrpcProxyObserverTree> proxyOf(const std::string& address,
                                               const std::shared_ptr<std::mutex>& mutex) {
    return AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<Api::StateMonitoringService>(
        grpc::CreateChannel(address, grpc::InsecureChannelCredentials()), mutex, nullptr);
}

void say(const std::string& line) {
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    std::cout << line << std::endl;
}

/// Forwards from one service to the other, on its own thread.
class Direction {
public:
    Direction(const std::string& from, const std::string& to,
              const std::shared_ptr<std::mutex>& mutex)
        : m_name(from),
          m_mutex(mutex),
          m_from(proxyOf(from, mutex)),
          m_to(proxyOf(to, mutex)),
          m_thread([this] { run(); }) {}

    ~Direction() {
        end(m_isStopping);
        m_thread.join();
    }
    Direction(const Direction&) = delete;
    Direction(Direction&&) = delete;
    Direction& operator=(const Direction&) = delete;
    Direction& operator=(Direction&&) = delete;

private:
    void run() {
        while (!m_isStopping) {
            if (!m_from->waitForConnected(std::chrono::system_clock::now() + step)) {
                continue;
            }
            m_isLost = false;
            auto handle = observe();
            say("observing " + m_name);
            {
                std::unique_lock<std::mutex> endLock(m_endMutex);
                m_ended.wait(endLock, [this] { return m_isStopping || m_isLost; });
            }
            const std::lock_guard<std::mutex> lock(*m_mutex);
            handle.reset();
        }
    }

    std::any observe() {
        ObserveReq request;
        request.set_key_pattern("/state/notifications/archive/**");
        const std::lock_guard<std::mutex> lock(*m_mutex);
        return m_from->observe<ObserveReq>(
            "/state", request,
            [this](const ChangeSetType& changes, const Status& status) {
                if (!status.isOk()) {
                    say("lost " + m_name + ": " + status.errorMessage());
                    end(m_isLost);
                }
                passOn(changes);
            },
            0);
    }

    /// Ends the observation that the thread of this object waits for.
    void end(std::atomic<bool>& reason) {
        const std::lock_guard<std::mutex> endLock(m_endMutex);
        reason = true;
        m_ended.notify_one();
    }

    void passOn(const ChangeSetType& changes) {
        for (const auto& [key, keyChanges] : changes) {
            const auto& current = keyChanges.at(0).current;
            if (!current) {
                continue;
            }
            Api::CreateStateNotificationReq request;
            auto& notification = *request.mutable_statenotification();
            notification = current->get<Api::StoredNotification>().statenotification();
            if (notification.service_id() != ownId) {
                notification.set_service_id(ownId);
                Api::CreateStateNotificationResp response;
                m_to->callUnary("/state/notifications", UnaryOps::CREATE, request, response);
            }
        }
    }

    std::string m_name;
    std::shared_ptr<std::mutex> m_mutex;
    std::shared_ptr<GrpcProxyObserverTree> m_from;
    std::shared_ptr<GrpcProxyObserverTree> m_to;
    std::mutex m_endMutex;  // taken after the mutex of the trees
    std::condition_variable m_ended;
    std::atomic<bool> m_isStopping{false};
    std::atomic<bool> m_isLost{false};
    std::thread m_thread;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const std::array<std::string, 2> addresses = {argv[1], argv[2]};
    const auto mutex = std::make_shared<std::mutex>();
    const Direction there(addresses[0], addresses[1], mutex);
    const Direction back(addresses[1], addresses[0], mutex);
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    return 0;
}
