#include "hox/observer_tree/builders/check_bindings.h"

#include <set>
#include <utility>

#include "hox/observer_tree/builders/obs_tree_build_error.h"
#include "hox/observer_tree/builders/proto_obs_tree_builder.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

void checkBindings(const google::protobuf::DescriptorPool& pool, const std::string& serviceName) {
    std::set<std::pair<std::string, int>> bound;
    for (const auto* method : ProtoObsTreeBuilder().getObsTreeMethods(pool, serviceName)) {
        const auto& options = method->options().GetExtension(obs_tree_option);
        if (options.key().empty()) {
            throw ObsTreeBuildError(
                "The obs_tree_option of method " + method->full_name() + " has no key", __FILE__,
                __LINE__);
        }
        if (options.type() == ObsTreeOptions::RESERVED ||
            !ObsTreeOptions::func_type_IsValid(options.type())) {
            throw ObsTreeBuildError("The obs_tree_option of method " + method->full_name() +
                                        " has the key " + options.key() + " and no valid type",
                                    __FILE__, __LINE__);
        }
        if (!bound.emplace(options.key(), options.type()).second) {
            throw ObsTreeBuildError(
                "Method " + method->full_name() + " is another one with the key " + options.key() +
                    " and the type " + ObsTreeOptions::func_type_Name(options.type()),
                __FILE__, __LINE__);
        }
    }
}

}  // namespace Hox::ObserverTree
