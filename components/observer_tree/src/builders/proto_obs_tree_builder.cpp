#include "hox/observer_tree/builders/proto_obs_tree_builder.h"

#include <spdlog/logger.h>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

ProtoObsTreeBuilder::ProtoObsTreeBuilder()
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())) {}

std::vector<const google::protobuf::MethodDescriptor*> ProtoObsTreeBuilder::getObsTreeMethods(
    const google::protobuf::DescriptorPool& pool, const std::string& serviceName) const {
    const auto* service = pool.FindServiceByName(serviceName);
    if (service == nullptr) {
        throw ObsTreeBuildError("Unable to find service " + serviceName + " in descriptor pool",
                                __FILE__, __LINE__);
    }
    std::vector<const google::protobuf::MethodDescriptor*> methods;
    for (int index = 0; index < service->method_count(); ++index) {
        const auto* method = service->method(index);
        if (method->options().HasExtension(obs_tree_option)) {
            methods.push_back(method);
        }
    }
    m_logger->log(Hox::Log::here(), spdlog::level::trace,
                  "Service {} binds {} of {} methods to a tree", serviceName, methods.size(),
                  service->method_count());
    return methods;
}

}  // namespace Hox::ObserverTree
