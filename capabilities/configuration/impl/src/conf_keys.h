#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "configuration.pb.h"
#include "hox/configuration/storable_key.h"
#include "hox/observer_tree/tree_types.h"

namespace Hox::Capability::Configuration {

/// The root of all configuration.
constexpr const char* confRoot = "/sys/conf";

/// The position in each key at which the unique id of its slice begins.
constexpr std::size_t uniqueIdStart = std::string_view(confRoot).size() + 1;

/// The root of a slice: every key of the slice starts with this text.
std::string capConfKey(const Api::ConfId& confId);

/// The root of a slice without the common start of all roots.
std::string uniqueConfId(const Api::ConfId& confId);

/// Length of the slice root that the key starts with. Asserts that the key is long enough to have
/// one.
std::size_t sliceRootLength(const std::string& key);

/// The native form of a slice that has been read, by keys inside the slice; moves the values out of
/// the message. All keys belong to one slice.
Hox::ObserverTree::ChangeSetType splitCapConfKeys(
    Hox::ObserverTree::ObsTreeObserveChangeSet&& changeSet);

/// Whether a saved key is loaded into the tree.
bool isLoaded(const std::string& key);

/// Whether the key is the key of a slice's state id.
bool isStateIdKey(const std::string& key);

/// The reason why no service could write the well-formed key, or an empty text.
std::string whyNotWritable(const std::string& key);

}  // namespace Hox::Capability::Configuration
