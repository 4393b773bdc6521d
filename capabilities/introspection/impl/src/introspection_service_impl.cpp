#include "hox/introspection/introspection_service_impl.h"

#include <spdlog/spdlog.h>

#include <memory>

namespace Hox::Capability::Introspection {

namespace {

/// The numbers on the wire are those of spdlog.
void setLevel(spdlog::logger& logger, LogLevel level) {
    logger.set_level(static_cast<spdlog::level::level_enum>(level));
}

}  // namespace

grpc::Status IntrospectionServiceImpl::listLoggers(grpc::ServerContext* /*context*/,
                                                   const google::protobuf::Empty* /*request*/,
                                                   ListLoggersResp* response) {
    spdlog::apply_all([response](const std::shared_ptr<spdlog::logger>& logger) {
        Logger* entry = response->add_logger();
        entry->set_name(logger->name());
        entry->set_level(static_cast<LogLevel>(logger->level()));
    });
    return grpc::Status::OK;
}

grpc::Status IntrospectionServiceImpl::setLogLevel(grpc::ServerContext* /*context*/,
                                                   const SetLogLevelReq* request,
                                                   SetLogLevelResp* /*response*/) {
    const auto logger = spdlog::get(request->name());
    if (!logger) {
        return {grpc::StatusCode::NOT_FOUND, "No such logger in registry."};
    }
    setLevel(*logger, request->level());
    return grpc::Status::OK;
}

grpc::Status IntrospectionServiceImpl::setAllLogLevels(grpc::ServerContext* /*context*/,
                                                       const SetAllLogLevelsReq* request,
                                                       SetAllLogLevelsResp* /*response*/) {
    spdlog::apply_all([request](const std::shared_ptr<spdlog::logger>& logger) {
        setLevel(*logger, request->level());
    });
    return grpc::Status::OK;
}

}  // namespace Hox::Capability::Introspection
