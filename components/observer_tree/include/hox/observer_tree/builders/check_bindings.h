#pragma once

#include <google/protobuf/descriptor.h>

#include <string>

namespace Hox::ObserverTree {

/// Throws ObsTreeBuildError, with the name of the method, if a method's obs_tree_option has no key
/// or no valid type, or if two methods of the service have the same ones: only one handler could
/// serve them. Throws it too if the pool does not know the service. Callable from any thread.
void checkBindings(const google::protobuf::DescriptorPool& pool, const std::string& serviceName);

}  // namespace Hox::ObserverTree
