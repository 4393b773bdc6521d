#pragma once

#include <grpcpp/server_context.h>

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "grpc/health/v1/health.grpc.pb.h"

namespace Hox::Service {

/// The standard health service: tells whether the process serves, as a whole (the empty name) and
/// for each of its gRPC services, which all begin and end together.
///
/// The library has one of its own, whose threads read from the network at all times: beside them
/// each event of a capability wakes two threads, which doubles the cost of a call.
class HealthService final : public grpc::health::v1::Health::Service {
public:
    /// As many clients may watch at a time: each of them takes a thread.
    static constexpr std::size_t maxWatchers = 64;

    /// The services that are known by name, from now on. Any thread.
    void setServiceNames(const std::set<std::string>& names);

    /// Whether everything is served; not so until the first call. Any thread.
    void setServing(bool isServing);

    /// Tells watchers for the last time and lets their calls end. Any thread.
    void endWatches();

    /// Answers NOT_FOUND for an unknown service.
    grpc::Status Check(grpc::ServerContext* context,
                       const grpc::health::v1::HealthCheckRequest* request,
                       grpc::health::v1::HealthCheckResponse* response) override;

    /// Streams the status at once and whenever it changes; SERVICE_UNKNOWN for an unknown service.
    /// RESOURCE_EXHAUSTED where too many watch.
    grpc::Status Watch(grpc::ServerContext* context,
                       const grpc::health::v1::HealthCheckRequest* request,
                       grpc::ServerWriter<grpc::health::v1::HealthCheckResponse>* writer) override;

private:
    using ServingStatus = grpc::health::v1::HealthCheckResponse::ServingStatus;

    std::optional<ServingStatus> statusOf(const std::string& service) const;  // REQUIRES(m_mutex)
    grpc::Status watch(const std::string& service, grpc::ServerContext& context,
                       grpc::ServerWriter<grpc::health::v1::HealthCheckResponse>& writer,
                       std::unique_lock<std::mutex>& lock);

    std::mutex m_mutex;  // never held while a status is written
    std::condition_variable m_changed;
    std::set<std::string> m_names;  // GUARDED_BY(m_mutex)
    bool m_isServing = false;       // GUARDED_BY(m_mutex)
    bool m_isEnding = false;        // GUARDED_BY(m_mutex)
    std::size_t m_watchers = 0;     // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Service
