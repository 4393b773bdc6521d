#include "package_difference.h"

#include <string>

#include "saved_value.h"

namespace Hox::Ctl {

namespace {

/// Null for a key that the package does not have.
const std::string* valueOf(const Package& package, const std::string& key) {
    const auto found = package.values().find(key);
    return found == package.values().end() ? nullptr : &found->second;
}

}  // namespace

PackageDifference differenceOf(const Package& before, const Package& after) {
    std::set<std::string> keys;
    for (const auto* const package : {&before, &after}) {
        for (const auto& [key, text] : package->values()) {
            if (!isStateId(key)) {
                keys.insert(key);
            }
        }
    }
    PackageDifference difference;
    for (const auto& key : keys) {
        const auto* const former = valueOf(before, key);
        const auto* const latter = valueOf(after, key);
        if (former != nullptr && latter != nullptr && *former == *latter) {
            continue;
        }
        auto& change = *difference.add_changes();
        change.set_key(key);
        if (former != nullptr) {
            *change.mutable_old_value() = jsonValue(*former);
        }
        if (latter != nullptr) {
            *change.mutable_new_value() = jsonValue(*latter);
        }
        if (former == nullptr) {
            difference.set_added(difference.added() + 1);
        } else if (latter == nullptr) {
            difference.set_removed(difference.removed() + 1);
        } else {
            difference.set_changed(difference.changed() + 1);
        }
    }
    return difference;
}

}  // namespace Hox::Ctl
