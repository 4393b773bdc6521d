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

/// The standard health service: reports whether the process serves, as a whole (the empty name) and
/// for each of its gRPC services, which all start and end together.
///
/// The health service of the library has threads that always read from the network: with them each
/// event of a capability wakes two threads, which doubles the cost of a call.
class HealthService final : public grpc::health::v1::Health::Service {
public:
    /// The maximum number of clients that watch at the same time: each of them uses a thread.
    static constexpr std::size_t maxWatchers = 64;

    /// Sets the names of the known services. Callable from any thread.
    void setServiceNames(const std::set<std::string>& names);

    /// Sets whether everything is served; false until the first call. Callable from any thread.
    void setServing(bool isServing);

    /// Sends watchers the last status and ends their calls. Callable from any thread.
    void endWatches();

    /// Answers NOT_FOUND for an unknown service.
    grpc::Status Check(grpc::ServerContext* context,
                       const grpc::health::v1::HealthCheckRequest* request,
                       grpc::health::v1::HealthCheckResponse* response) override;

    /// Streams the status immediately and on every change; SERVICE_UNKNOWN for an unknown service.
    /// RESOURCE_EXHAUSTED if too many clients watch.
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
