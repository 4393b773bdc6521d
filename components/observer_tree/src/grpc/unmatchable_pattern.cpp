#include "grpc/unmatchable_pattern.h"

#include <algorithm>
#include <variant>

#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/path_manipulation.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

std::optional<std::string> findUnmatchablePattern(const google::protobuf::Message& request) {
    const auto* observeReq = dynamic_cast<const ObserveReq*>(&request);
    if (observeReq == nullptr) {
        return std::nullopt;
    }
    const auto& pattern = observeReq->key_pattern();
    try {
        const auto components = PathManipulation().parsePath(PathType::KeyPattern, pattern);
        const auto doubleStar =
            std::find(components.begin(), components.end(), PathComponent(WildCard::DoubleStar));
        const bool hasLiteralBehind =
            std::any_of(doubleStar, components.end(), [](const PathComponent& component) {
                return std::holds_alternative<std::string>(component);
            });
        if (!hasLiteralBehind) {
            return std::nullopt;
        }
    } catch (const PathError&) {
        return std::nullopt;
    }
    return "A key_pattern with a literal component behind ** can not be matched; path = " +
           pattern + ". ";
}

}  // namespace Hox::ObserverTree
