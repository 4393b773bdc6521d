#include "conf_keys.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/string/string_utils.h"
#include "hox/observer_tree/change_set_conversion.h"
#include "hox/observer_tree/key_components.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::KeyComponents;

namespace {

constexpr int slashesOfSlice = 3;

/// The position of the slash after the root of the key's slice; the end for a key in no slice.
std::string::const_iterator sliceRootEnd(const std::string& key) {
    std::size_t end = uniqueIdStart - 1;
    for (int slashes = 0; slashes < slashesOfSlice && end < key.size(); ++slashes) {
        end = key.find(KeyComponents::separator, end + 1);
    }
    return key.begin() + static_cast<std::ptrdiff_t>(std::min(end, key.size()));
}

}  // namespace

std::string uniqueConfId(const Api::ConfId& confId) {
    return confId.nodetype() + "/" + confId.nodeid() + "/" + confId.capabilityid();
}

std::string capConfKey(const Api::ConfId& confId) {
    return std::string(confRoot) + "/" + uniqueConfId(confId);
}

std::size_t sliceRootLength(const std::string& key) {
    const auto iter = sliceRootEnd(key);
    HOX_ASSERT(iter != key.end());
    return static_cast<std::size_t>(iter - key.begin());
}

bool isStateIdKey(const std::string& key) {
    return isLoaded(key) && sliceRootEnd(key) != key.end() &&
           key.substr(sliceRootLength(key)) == stateIdKey;
}

ChangeSetType splitCapConfKeys(Hox::ObserverTree::ObsTreeObserveChangeSet&& changeSet) {
    ChangeSetType whole = Hox::ObserverTree::fromWire(std::move(changeSet));
    ChangeSetType local;
    const std::size_t prefixLength = whole.empty() ? 0 : sliceRootLength(whole.begin()->first);
    while (!whole.empty()) {
        auto change = whole.extract(whole.begin());
        change.key().erase(0, prefixLength);
        local.insert(local.end(), std::move(change));
    }
    return local;
}

bool isLoaded(const std::string& key) {
    static const std::string start = std::string(confRoot) + "/";
    return Hox::CppUtil::str_starts_with(start, key) &&
           key.find_first_of("\n\r") == std::string::npos;
}

std::string whyNotWritable(const std::string& key) {
    const std::string refusal = whyNotStorable(key);
    return refusal.empty() && sliceRootEnd(key) == key.end() ? "Key is in no slice: " + shown(key)
                                                             : refusal;
}

}  // namespace Hox::Capability::Configuration
