#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "configuration.pb.h"
#include "hox/observer_tree/tree_types.h"

namespace Hox::Capability::Configuration {

/// Where all configuration lies.
constexpr const char* confRoot = "/sys/conf";

/// Where the unique id of its slice begins in each key.
constexpr std::size_t uniqueIdStart = std::string_view(confRoot).size() + 1;

/// A longer key is refused without a look at its form: the text of a malformed key holds it whole,
/// and would not fit the status of an answer.
constexpr std::size_t maxKeySize = 3000;

/// A key of more components is refused: its folders lie too deep.
constexpr std::size_t maxKeyComponents = 128;

/// The key that holds the state id of a slice, inside the slice.
constexpr const char* stateIdKey = "/__csid";

/// The root of a slice: every key of the slice starts with this text.
std::string capConfKey(const Api::ConfId& confId);

/// The root of a slice without what all roots have in common.
std::string uniqueConfId(const Api::ConfId& confId);

/// Length of the slice root that the key starts with. Asserts that the key is long enough to have
/// one.
std::size_t sliceRootLength(const std::string& key);

/// The native form of a slice that has been read, by keys inside the slice; takes the values out of
/// the message. All keys belong to one slice.
Hox::ObserverTree::ChangeSetType splitCapConfKeys(
    Hox::ObserverTree::ObsTreeObserveChangeSet&& changeSet);

/// Whether a saved key goes into the tree when it is loaded.
bool isLoaded(const std::string& key);

/// Whether the key is that of the state id of a slice.
bool isStateIdKey(const std::string& key);

/// Why the file store cannot hold the key, or an empty text.
std::string whyNotStorable(const std::string& key);

/// Why no service could write the well-formed key, or an empty text.
std::string whyNotWritable(const std::string& key);

}  // namespace Hox::Capability::Configuration
