#pragma once

#include <google/protobuf/empty.pb.h>
#include <grpcpp/server_context.h>

#include "introspection.grpc.pb.h"

namespace Hox::Capability::Introspection {

/// Lists the loggers of the process and turns their levels, straight in spdlog's registry.
///
/// Stateless. Called on gRPC's own threads, several at once and without any lock of the house; the
/// registry guards itself and each level is atomic.
class IntrospectionServiceImpl : public IntrospectionService::Service {
public:
    /// Answers with each registered logger and its level. Always OK.
    grpc::Status listLoggers(grpc::ServerContext* context, const google::protobuf::Empty* request,
                             ListLoggersResp* response) override;

    /// Sets the level of the logger of this name, whatever the number. NOT_FOUND without such a
    /// logger; nothing is changed then.
    grpc::Status setLogLevel(grpc::ServerContext* context, const SetLogLevelReq* request,
                             SetLogLevelResp* response) override;

    /// Sets the level of each registered logger, whatever the number. Always OK.
    grpc::Status setAllLogLevels(grpc::ServerContext* context, const SetAllLogLevelsReq* request,
                                 SetAllLogLevelsResp* response) override;
};

}  // namespace Hox::Capability::Introspection
