#include "health/health_service.h"

#include <chrono>

namespace Hox::Service {

using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;

namespace {

/// The interval at which a watch checks whether its client is still connected.
constexpr std::chrono::milliseconds lookInterval{500};

}  // namespace

void HealthService::setServiceNames(const std::set<std::string>& names) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_names = names;
    m_changed.notify_all();
}

void HealthService::setServing(bool isServing) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isServing = isServing;
    m_changed.notify_all();
}

void HealthService::endWatches() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isEnding = true;
    m_changed.notify_all();
}

std::optional<HealthService::ServingStatus> HealthService::statusOf(
    const std::string& service) const {
    if (!service.empty() && m_names.count(service) == 0) {
        return std::nullopt;
    }
    return m_isServing ? HealthCheckResponse::SERVING : HealthCheckResponse::NOT_SERVING;
}

grpc::Status HealthService::Check(grpc::ServerContext* /*context*/,
                                  const HealthCheckRequest* request,
                                  HealthCheckResponse* response) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto status = statusOf(request->service());
    if (!status) {
        return {grpc::StatusCode::NOT_FOUND, "service name unknown"};
    }
    response->set_status(*status);
    return grpc::Status::OK;
}

grpc::Status HealthService::Watch(grpc::ServerContext* context, const HealthCheckRequest* request,
                                  grpc::ServerWriter<HealthCheckResponse>* writer) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_watchers == maxWatchers) {
        return {grpc::StatusCode::RESOURCE_EXHAUSTED, "Too many clients watch"};
    }
    ++m_watchers;
    auto outcome = watch(request->service(), *context, *writer, lock);
    --m_watchers;
    return outcome;
}

/// The lock is held on entry and on return.
grpc::Status HealthService::watch(const std::string& service, grpc::ServerContext& context,
                                  grpc::ServerWriter<HealthCheckResponse>& writer,
                                  std::unique_lock<std::mutex>& lock) {
    HealthCheckResponse told;
    bool isTold = false;
    while (!context.IsCancelled()) {
        const auto status = statusOf(service).value_or(HealthCheckResponse::SERVICE_UNKNOWN);
        if (!isTold || told.status() != status) {
            told.set_status(status);
            lock.unlock();
            isTold = writer.Write(told);
            lock.lock();
            if (!isTold) {
                break;
            }
        } else if (m_isEnding) {
            return {grpc::StatusCode::UNAVAILABLE, "The server is shut down"};
        } else {
            m_changed.wait_for(lock, lookInterval);
        }
    }
    return grpc::Status::CANCELLED;
}

}  // namespace Hox::Service
