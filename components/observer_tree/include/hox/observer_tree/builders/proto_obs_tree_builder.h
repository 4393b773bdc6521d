#pragma once

#include <google/protobuf/descriptor.h>
#include <spdlog/fwd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hox/cpputil/log/logger_name.h"

namespace Hox::ObserverTree {

/// The common part of the builders: reads a service's binding to a tree from its descriptor.
///
/// Used by the thread that sets up the service.
class ProtoObsTreeBuilder {
public:
    /// Creates the logger of this class, in addition to those of the builders.
    ProtoObsTreeBuilder();
    virtual ~ProtoObsTreeBuilder() = default;
    ProtoObsTreeBuilder(const ProtoObsTreeBuilder&) = delete;
    ProtoObsTreeBuilder(ProtoObsTreeBuilder&&) = delete;
    ProtoObsTreeBuilder& operator=(const ProtoObsTreeBuilder&) = delete;
    ProtoObsTreeBuilder& operator=(ProtoObsTreeBuilder&&) = delete;

    /// The methods of the service that carry obs_tree_option, in declaration order; they live as
    /// long as the pool. Throws ObsTreeBuildError if the pool does not know the service.
    std::vector<const google::protobuf::MethodDescriptor*> getObsTreeMethods(
        const google::protobuf::DescriptorPool& pool, const std::string& serviceName) const;

private:
    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    std::shared_ptr<spdlog::logger> m_logger;
};

}  // namespace Hox::ObserverTree
