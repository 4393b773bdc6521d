#include "json_change_set.h"

#include <google/protobuf/wrappers.pb.h>

#include <memory>
#include <utility>

#include "hox/configuration/storable_key.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "hox/observer_tree/persistence/value_text.h"
#include "hox/observer_tree/utils.h"

namespace Hox::Capability::Configuration {

using google::protobuf::StringValue;
using Hox::CppUtil::InvalidArgumentError;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::DataTreeValPtr;
using Hox::ObserverTree::ObsTreeObserveChangeSet;

namespace {

void toJson(const DataTreeVal& value, google::protobuf::Any& packed) {
    StringValue text;
    text.set_value(Hox::ObserverTree::textOfValue(*value.toAny()));
    packed.PackFrom(text);
}

StringValue textIn(const DataTreeVal& value, const std::string& key) {
    try {
        return value.get<StringValue>();
    } catch (const Hox::Error& error) {
        throw InvalidArgumentError("The value of " + key + " is no text: " + error.what(), __FILE__,
                                   __LINE__);
    }
}

DataTreeValPtr fromJson(const DataTreeValPtr& value, const std::string& key) {
    if (!value) {
        return nullptr;
    }
    google::protobuf::Any packed;
    if (!Hox::ObserverTree::valueFromText(textIn(*value, key).value(), packed)) {
        throw InvalidArgumentError(
            "The text of " + key + " is not the JSON form of a known message", __FILE__, __LINE__);
    }
    return std::make_shared<const DataTreeVal>(std::move(packed));
}

DataTreeValPtr fromJsonIfReadable(const DataTreeValPtr& value, const std::string& key) {
    try {
        return fromJson(value, key);
    } catch (const InvalidArgumentError&) {
        return nullptr;
    }
}

}  // namespace

ObsTreeObserveChangeSet changeSetToJson(const ChangeSetType& changes) {
    ObsTreeObserveChangeSet result;
    for (const auto& [key, keyChanges] : changes) {
        if (key == stateIdKey) {
            continue;
        }
        const auto& change = keyChanges.at(0);
        auto& pair = *(*result.mutable_node_change_map())[key].add_nodepairlist();
        if (change.current) {
            toJson(*change.current, *pair.mutable_currentmessage());
        }
        if (change.previous) {
            toJson(*change.previous, *pair.mutable_prevmessage());
        }
    }
    return result;
}

ChangeSetType changeSetFromJson(const ChangeSetType& changes) {
    const Hox::ObserverTree::PathManipulation path;
    ChangeSetType result;
    for (const auto& changeSetEntry : changes) {
        // The text of the assertion. NOLINTNEXTLINE(readability-container-size-empty)
        HOX_ASSERT(changeSetEntry.second.size());
        const auto& key = changeSetEntry.first;
        const auto refusal = path.isKey(key) ? whyNotStorable(key) : "No key: " + shown(key);
        if (!refusal.empty()) {
            throw InvalidArgumentError(refusal, __FILE__, __LINE__);
        }
        const auto& change = changeSetEntry.second.front();
        addToChangeSet(result, key, fromJson(change.current, key),
                       fromJsonIfReadable(change.previous, key), 0);
    }
    return result;
}

}  // namespace Hox::Capability::Configuration
