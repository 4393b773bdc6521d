#pragma once

#include <google/protobuf/empty.pb.h>
#include <grpcpp/server_context.h>

#include "introspection.grpc.pb.h"

namespace Hox::Capability::Introspection {

/// Lists the loggers of the process and changes their levels, directly in spdlog's registry.
///
/// Stateless. Called on gRPC's own threads, several at the same time and without any lock of this
/// program; the registry guards itself and each level is atomic.
class IntrospectionServiceImpl : public IntrospectionService::Service {
public:
    /// Answers with each registered logger and its level. Always OK.
    grpc::Status listLoggers(grpc::ServerContext* context, const google::protobuf::Empty* request,
                             ListLoggersResp* response) override;

    /// Sets the level of the logger of this name to any number. NOT_FOUND if there is no such
    /// logger; nothing changes then.
    grpc::Status setLogLevel(grpc::ServerContext* context, const SetLogLevelReq* request,
                             SetLogLevelResp* response) override;

    /// Sets the level of each registered logger to any number. Always OK.
    grpc::Status setAllLogLevels(grpc::ServerContext* context, const SetAllLogLevelsReq* request,
                                 SetAllLogLevelsResp* response) override;
};

}  // namespace Hox::Capability::Introspection
