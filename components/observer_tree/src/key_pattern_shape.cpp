#include "key_pattern_shape.h"

#include <algorithm>
#include <functional>
#include <tuple>

namespace Hox::ObserverTree {

std::optional<std::size_t> KeyPatternShape::hashOf(std::string_view text) const {
    const auto isEndOfComponent = [text](std::size_t place) {
        return place == text.size() || (place < text.size() && text[place] == '/');
    };
    if (!isEndOfComponent(prefixSize)) {
        return std::nullopt;
    }
    std::size_t place = prefixSize;
    for (std::size_t star = 0; star < starCount; ++star) {
        if (place == text.size()) {
            return std::nullopt;
        }
        place = std::min(text.find('/', place + 1), text.size());
    }
    if (!isEndOfComponent(place + literalsSize)) {
        return std::nullopt;
    }
    const std::hash<std::string_view> hash;
    return 31 * hash(text.substr(0, prefixSize)) + hash(text.substr(place, literalsSize));
}

bool operator<(const KeyPatternShape& left, const KeyPatternShape& right) {
    return std::tie(left.prefixSize, left.starCount, left.literalsSize) <
           std::tie(right.prefixSize, right.starCount, right.literalsSize);
}

}  // namespace Hox::ObserverTree
