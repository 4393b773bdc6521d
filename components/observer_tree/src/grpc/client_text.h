#pragma once

#include <cstddef>
#include <string>

namespace Hox::ObserverTree {

/// The maximum size of a text for a client, in bytes. A status whose text is larger than the
/// client's limit for headers ends the connection with all its streams.
constexpr std::size_t maxClientText = 2000;

/// The text, cut to this size between two characters.
std::string clientText(const std::string& text);

}  // namespace Hox::ObserverTree
