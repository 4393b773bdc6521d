#pragma once

#include <grpcpp/server.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "configuration.grpc.pb.h"
#include "hox/testing/reserved_port.h"

namespace Hox::Capability::Configuration::Fixture {

/// A central store on a real port that says what a test wants, true or not.
///
/// Its functions may be called from any thread.
class ScriptedStore {
public:
    /// Is reachable from start() on.
    ScriptedStore();

    /// As stop().
    ~ScriptedStore();
    ScriptedStore(const ScriptedStore&) = delete;
    ScriptedStore(ScriptedStore&&) = delete;
    ScriptedStore& operator=(const ScriptedStore&) = delete;
    ScriptedStore& operator=(ScriptedStore&&) = delete;

    /// Where clients find it, also while it does not run.
    std::string address() const;

    void start();

    /// Ends all calls and connections; also those that nobody answers.
    void stop();

    /// The status and the id of the next update; OK and "id" by default.
    void answerWith(const grpc::Status& status, const std::string& stateId);

    /// From now on nobody answers updates.
    void ignoreUpdates();

    /// The updates so far.
    std::vector<Api::UpdateCapConfReq> updates() const;

    /// The observations so far.
    std::vector<Api::ObserveCapConfReq> observations() const;

    /// How many streams run.
    int streams() const;

    /// Sends an element on the last stream.
    void send(const ObserverTree::ObsTreeObserveChangeSet& element);

private:
    class Service;

    const Testing::ReservedPort m_port;
    const std::unique_ptr<Service> m_service;
    std::unique_ptr<grpc::Server> m_server;
};

}  // namespace Hox::Capability::Configuration::Fixture
