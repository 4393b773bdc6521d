#pragma once

#include <cstddef>
#include <string>

namespace Hox::Capability::Configuration {

/// The key that holds the state id of a slice, inside the slice.
constexpr const char* stateIdKey = "/__csid";

/// A longer key is refused before its form is checked: no folder or package could hold it.
constexpr std::size_t maxKeySize = 3000;

/// A key with more components is refused: its folders would be nested too deep.
constexpr std::size_t maxKeyComponents = 128;

/// The reason why the file store cannot hold the key, or an empty text.
std::string whyNotStorable(const std::string& key);

/// The key for messages: in one line.
std::string shown(const std::string& key);

}  // namespace Hox::Capability::Configuration
