#include "hox/observer_tree/utils.h"

#include <utility>

#include "hox/cpputil/assertion/assertion.h"

namespace Hox::ObserverTree {

void addToChangeSet(ChangeSetType& changeSet, const std::string& key, DataTreeValPtr current,
                    DataTreeValPtr previous, int index) {
    HOX_ASSERT(index == 0);
    changeSet[key] = {ChangeSetMapVal{std::move(current), std::move(previous)}};
}

namespace Detail {

const DataTreeVal& dereference(const DataTreeValPtr& value, const char* side) {
    if (!value) {
        throw DataTreeValError(std::string("No valid DataTreeVal reference for ") + side, __FILE__,
                               __LINE__);
    }
    return *value;
}

}  // namespace Detail

}  // namespace Hox::ObserverTree
