#pragma once

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "event_log.h"
#include "fake_cap_mngr.h"
#include "frame_probes.h"
#include "hox/service_common/service_initializer/lum_service_initializer.h"
#include "hox/testing/arguments.h"
#include "hox/testing/fake_discovery.h"
#include "hox/testing/notify_socket.h"
#include "hox/testing/reserved_port.h"
#include "hox/testing/wait_until.h"
#include "introspection.grpc.pb.h"

namespace Hox::Service::Fixture {

/// Ends the process with status 1 if the condition is false.
inline void check(bool condition, const std::string& what) {
    if (!condition) {
        std::cerr << "FAILED: " << what << std::endl;
        std::_Exit(1);
    }
}

/// A gRPC service whose calls last as long as the test wants. Without a service no server starts.
class CallsInFlight : public Capability::Introspection::IntrospectionService::Service {
public:
    /// Lasts until the client or the server cancels it.
    grpc::Status setLogLevel(grpc::ServerContext* context,
                             const Capability::Introspection::SetLogLevelReq* /*request*/,
                             Capability::Introspection::SetLogLevelResp* /*response*/) override {
        m_entered = true;
        m_cancelled = Testing::waitUntil([context] { return context->IsCancelled(); });
        return grpc::Status::CANCELLED;
    }

    /// Lasts until released.
    grpc::Status setAllLogLevels(
        grpc::ServerContext* /*context*/,
        const Capability::Introspection::SetAllLogLevelsReq* /*request*/,
        Capability::Introspection::SetAllLogLevelsResp* /*response*/) override {
        m_entered = true;
        check(Testing::waitUntil([this] { return m_released.load(); }), "never released");
        return grpc::Status::OK;
    }

    bool entered() const { return m_entered; }
    bool cancelled() const { return m_cancelled; }
    void release() { m_released = true; }

private:
    std::atomic<bool> m_entered{false};
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_released{false};
};

/// One frame from its construction to its end, in a separate process.
class ChildFrame {
public:
    explicit ChildFrame(const std::vector<std::string>& arguments = {})
        : m_events(m_notifySocket), m_line(completed(arguments)) {
        const auto before = openEventDescriptors();
        m_service = std::make_unique<LumServiceInitializer>(m_line.argc(), m_line.argv(),
                                                            Testing::fakeDiscoveryClient);
        for (const int descriptor : openEventDescriptors()) {
            if (before.count(descriptor) == 0) {
                m_shutdownDescriptor = descriptor;
            }
        }
    }

    EventLog& events() { return m_events; }
    LumServiceInitializer& service() { return *m_service; }
    std::string port() const { return m_port.text(); }
    std::uint64_t shutdownCount() const { return eventCount(m_shutdownDescriptor); }

    void add(const std::string& name, int id, FakeCapMngr::Hooks hooks = {}) {
        m_service->addCapability(
            std::make_unique<FakeCapMngr>(name, id, m_events, std::move(hooks)));
    }

    void initialize() {
        check(m_service->initialize() == 0, "initialize");
        m_service->getServiceCtx().getServerBuilder().RegisterService(&m_calls);
    }

    CallsInFlight& calls() { return m_calls; }

    /// Serves until `whenReady`, which runs on a separate thread, ends it.
    void serve(const std::function<void()>& whenReady) {
        std::thread watcher([&] {
            check(m_notifySocket.waitFor("READY=1"), "not ready");
            whenReady();
        });
        m_service->serverStart();
        m_events.add("served");
        watcher.join();
    }

    void serveUntil(int signalNumber) {
        serve([signalNumber] { kill(getpid(), signalNumber); });
    }

    /// Serves until an exception of this type ends it, whose text becomes an event.
    template <typename Exception>
    void serveInVain() {
        try {
            m_service->serverStart();
            check(false, "no exception");
        } catch (const Exception& error) {
            m_events.add(error.what());
        }
    }

    /// Destroys the frame, prints the events and ends the process.
    [[noreturn]] void leave() {
        m_service.reset();
        print();
        std::exit(0);
    }

    void print() {
        std::ostringstream text;
        for (const auto& event : m_events.all()) {
            text << "|" << (isReadinessRecord(event) ? "[info] is ready" : event);
        }
        std::cerr << text.str() << "|" << std::endl;
    }

private:
    /// The line has the program's name, a version, the process and the port.
    bool isReadinessRecord(const std::string& event) const {
        static const std::regex form(
            "\\[info\\] service_common_test [0-9]+\\.[0-9]+\\.[0-9]+ is ready, pid " +
            std::to_string(getpid()) + ", port " + m_port.text() + "(, extport [0-9]+)?");
        return std::regex_match(event, form);
    }

    std::vector<std::string> completed(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "--logstdout");
        for (auto& argument : arguments) {
            argument = argument == "PORT" ? m_port.text() : argument;
        }
        return arguments;
    }

    Testing::ReservedPort m_port;
    CallsInFlight m_calls;
    Testing::NotifySocket m_notifySocket;
    EventLog m_events;
    Testing::Arguments m_line;
    std::unique_ptr<LumServiceInitializer> m_service;
    int m_shutdownDescriptor = -1;
};

}  // namespace Hox::Service::Fixture
