#include "conf_keys.h"

#include <google/protobuf/wrappers.pb.h>

#include <algorithm>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/observer_tree/change_set_conversion.h"
#include "hox/observer_tree/path_manipulation.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::ChangeSetType;

namespace {

constexpr std::size_t uniqueIdStart = 10;  // behind "/sys/conf/"
constexpr int slashesOfSlice = 3;
constexpr std::size_t maxComponentSize = 255;
constexpr std::size_t maxKeySize = 3000;

/// Whether the key goes into the tree when it is loaded.
bool isKept(const std::string& key) {
    const std::string start = std::string(confRoot) + "/";
    return key.compare(0, start.size(), start) == 0 &&
           key.find_first_of("\n\r") == std::string::npos;
}

bool isReservedName(const std::string& component) {
    return component == "data" || component == "data~";
}

}  // namespace

std::string uniqueConfId(const Api::ConfId& confId) {
    return confId.nodetype() + "/" + confId.nodeid() + "/" + confId.capabilityid();
}

std::string capConfKey(const Api::ConfId& confId) {
    return std::string(confRoot) + "/" + uniqueConfId(confId);
}

std::size_t sliceRootLength(const std::string& key) {
    auto iter = key.begin() + static_cast<std::ptrdiff_t>(std::min(uniqueIdStart, key.size()));
    for (int slashes = 0; iter != key.end(); ++iter) {
        if (*iter == '/' && ++slashes == slashesOfSlice) {
            break;
        }
    }
    HOX_ASSERT(iter != key.end());
    return static_cast<std::size_t>(iter - key.begin());
}

ChangeSetType splitCapConfKeys(const Hox::ObserverTree::ObsTreeObserveChangeSet& changeSet) {
    ChangeSetType local;
    auto changes = Hox::ObserverTree::fromWire(changeSet);
    if (changes.empty()) {
        return local;
    }
    const std::size_t prefixLength = sliceRootLength(changes.begin()->first);
    for (auto& [key, keyChanges] : changes) {
        local.emplace_hint(local.end(), key.substr(std::min(prefixLength, key.size())),
                           std::move(keyChanges));
    }
    return local;
}

void checkSaved(const ChangeSetType& content) {
    const Hox::ObserverTree::PathManipulation path;
    for (const auto& [key, changes] : content) {
        if (isKept(key)) {
            path.parsePath(Hox::ObserverTree::PathType::Key, key);
        } else if (key == stateIdKey) {
            changes.at(0).current->get<google::protobuf::StringValue>();
        }
    }
}

std::string whyNotStorable(const std::string& key) {
    if (key.size() > maxKeySize) {
        return "Key is longer than " + std::to_string(maxKeySize) + " bytes: " + key;
    }
    std::size_t start = 1;
    while (start < key.size()) {
        const std::size_t end = std::min(key.find('/', start), key.size());
        const std::string component = key.substr(start, end - start);
        if (component.size() > maxComponentSize) {
            return "Key has a component of more than " + std::to_string(maxComponentSize) +
                   " bytes: " + key;
        }
        if (isReservedName(component)) {
            return "Key has the reserved component " + component + ": " + key;
        }
        start = end + 1;
    }
    return {};
}

}  // namespace Hox::Capability::Configuration
