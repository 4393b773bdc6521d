#include "scripted_store.h"

#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server_builder.h>

#include <utility>

namespace Hox::Capability::Configuration::Fixture {

namespace {

/// How often a call looks whether its client is gone.
constexpr std::chrono::milliseconds step{5};

}  // namespace

class ScriptedStore::Service : public Api::ConfigurationService::Service {
public:
    grpc::Status updateCapConf(grpc::ServerContext* context, const Api::UpdateCapConfReq* request,
                               Api::UpdateCapConfResp* response) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_updates.push_back(*request);
        while (m_isIgnoring && !m_isStopping && !context->IsCancelled()) {
            m_changed.wait_for(lock, step);
        }
        response->set_capconfstateid(m_stateId);
        return m_status;
    }

    grpc::Status observeCapConf(
        grpc::ServerContext* context, const Api::ObserveCapConfReq* request,
        grpc::ServerWriter<ObserverTree::ObsTreeObserveChangeSet>* writer) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_observations.push_back(*request);
        const auto number = m_observations.size();
        ++m_streams;
        while (!m_isStopping && !context->IsCancelled()) {
            while (!m_elements.empty() && number == m_observations.size()) {
                writer->Write(m_elements.front());
                m_elements.pop_front();
            }
            m_changed.wait_for(lock, step);
        }
        --m_streams;
        return grpc::Status::CANCELLED;
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Api::UpdateCapConfReq> m_updates;        // GUARDED_BY(m_mutex)
    std::vector<Api::ObserveCapConfReq> m_observations;  // GUARDED_BY(m_mutex)
    std::deque<ObserverTree::ObsTreeObserveChangeSet>
        m_elements;                // to be sent. GUARDED_BY(m_mutex)
    grpc::Status m_status;         // GUARDED_BY(m_mutex)
    std::string m_stateId = "id";  // GUARDED_BY(m_mutex)
    bool m_isIgnoring = false;     // GUARDED_BY(m_mutex)
    bool m_isStopping = false;     // GUARDED_BY(m_mutex)
    int m_streams = 0;             // GUARDED_BY(m_mutex)
};

ScriptedStore::ScriptedStore() : m_service(std::make_unique<Service>()) {}

ScriptedStore::~ScriptedStore() {
    stop();
}

std::string ScriptedStore::address() const {
    return "127.0.0.1:" + m_port.text();
}

void ScriptedStore::start() {
    {
        const std::lock_guard<std::mutex> lock(m_service->m_mutex);
        m_service->m_isStopping = false;
    }
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address(), grpc::InsecureServerCredentials());
    builder.RegisterService(m_service.get());
    m_server = builder.BuildAndStart();
}

void ScriptedStore::stop() {
    if (!m_server) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_service->m_mutex);
        m_service->m_isStopping = true;
        m_service->m_elements.clear();
    }
    m_service->m_changed.notify_all();
    m_server->Shutdown(std::chrono::system_clock::now());
    m_server.reset();
}

void ScriptedStore::answerWith(const grpc::Status& status, const std::string& stateId) {
    const std::lock_guard<std::mutex> lock(m_service->m_mutex);
    m_service->m_status = status;
    m_service->m_stateId = stateId;
}

void ScriptedStore::ignoreUpdates() {
    const std::lock_guard<std::mutex> lock(m_service->m_mutex);
    m_service->m_isIgnoring = true;
}

std::vector<Api::UpdateCapConfReq> ScriptedStore::updates() const {
    const std::lock_guard<std::mutex> lock(m_service->m_mutex);
    return m_service->m_updates;
}

std::vector<Api::ObserveCapConfReq> ScriptedStore::observations() const {
    const std::lock_guard<std::mutex> lock(m_service->m_mutex);
    return m_service->m_observations;
}

int ScriptedStore::streams() const {
    const std::lock_guard<std::mutex> lock(m_service->m_mutex);
    return m_service->m_streams;
}

void ScriptedStore::send(const ObserverTree::ObsTreeObserveChangeSet& element) {
    {
        const std::lock_guard<std::mutex> lock(m_service->m_mutex);
        m_service->m_elements.push_back(element);
    }
    m_service->m_changed.notify_all();
}

}  // namespace Hox::Capability::Configuration::Fixture
