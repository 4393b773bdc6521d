#pragma once

#include <gtest/gtest.h>

#include <any>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "grpc/served_tree.h"
#include "grpc/told.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/reserved_port.h"
#include "hox/testing/wait_until.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {

/// A proxy with its capability's mutex, used as a capability does.
class ProxyClient {
public:
    explicit ProxyClient(const std::shared_ptr<grpc::Channel>& channel,
                         const std::shared_ptr<InProcessGate>& gate = nullptr)
        : proxy(AsyncGrpcProxyObsTreeBuilder().createProxyObsTree<TestService>(channel, mutex,
                                                                               gate)) {}

    std::any observe(const std::string& pattern, ObserverCallback callback) {
        std::any handle;
        observe(handle, pattern, std::move(callback));
        return handle;
    }

    /// For a callback that uses its own handle: the handle is already assigned.
    void observe(std::any& handle, const std::string& pattern, ObserverCallback callback) {
        ObserveReq request;
        request.set_key_pattern(pattern);
        const std::lock_guard<std::mutex> lock(*mutex);
        handle = proxy->observe<ObserveReq>("/items", request, std::move(callback), 0);
    }

    void drop(std::any& handle) {
        const std::lock_guard<std::mutex> lock(*mutex);
        handle.reset();
    }

    Status call(UnaryOps operation, const std::string& name, Answer& answer) const {
        Item item;
        item.set_name(name);
        return proxy->callUnary("/items", operation, item, answer);
    }

    std::shared_ptr<std::mutex> mutex = std::make_shared<std::mutex>();
    std::shared_ptr<GrpcProxyObserverTree> proxy;
};

/// A served tree on its own port, and a proxy of it.
class ProxyTree : public ::testing::Test {
protected:
    explicit ProxyTree(bool inProcess = false) {
        if (inProcess) {
            m_client.emplace(m_served->server->InProcessChannel(grpc::ChannelArguments()),
                             std::make_shared<InProcessGate>());
        } else {
            m_client.emplace(m_served->newChannel());
        }
    }

    void expectObservers(int count) {
        EXPECT_TRUE(Hox::Testing::waitUntil([&] { return m_served->handlers.observers == count; }))
            << m_served->handlers.observers << " observers";
    }

    Hox::Testing::LogCapture m_log{"AsyncGrpcClientHandler"};
    /// Reserved: no other program gets the port while the tree is not served.
    const Hox::Testing::ReservedPort m_port;
    std::optional<ServedTree<TestService>> m_served{std::in_place, "127.0.0.1:" + m_port.text()};
    Told m_told;
    std::optional<ProxyClient> m_client;
};

}  // namespace Hox::ObserverTree::Test
