#include "hox/configuration/storable_key.h"

#include <algorithm>
#include <string_view>

#include "hox/observer_tree/key_components.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::KeyComponents;

namespace {

constexpr std::size_t maxComponentSize = 255;

/// The expression for saved keys does not match line ends, and a path ends at a zero byte.
bool isUnstorable(char byte) {
    return byte == '\n' || byte == '\r' || byte == '\0';
}

bool isReservedName(std::string_view component) {
    return component == "data" || component == "data~";
}

}  // namespace

std::string shown(const std::string& key) {
    std::string text;
    for (const char byte : key) {
        if (!isUnstorable(byte)) {
            text += byte;
        } else if (byte == '\0') {
            text += "\\0";
        } else {
            text += byte == '\n' ? "\\n" : "\\r";
        }
    }
    return text;
}

std::string whyNotStorable(const std::string& key) {
    if (std::any_of(key.begin(), key.end(), isUnstorable)) {
        return "Key has a line end or a zero byte: " + shown(key);
    }
    if (key.size() > maxKeySize) {
        return "Key is longer than " + std::to_string(maxKeySize) + " bytes: " + shown(key);
    }
    std::size_t components = 0;
    for (const auto component : KeyComponents(key)) {
        if (++components > maxKeyComponents) {
            return "Key has more than " + std::to_string(maxKeyComponents) +
                   " components: " + shown(key);
        }
        if (component.size() > maxComponentSize) {
            return "Key has a component of more than " + std::to_string(maxComponentSize) +
                   " bytes: " + shown(key);
        }
        if (isReservedName(component)) {
            return "Key has the reserved component " + std::string(component) + ": " + shown(key);
        }
    }
    return {};
}

}  // namespace Hox::Capability::Configuration
