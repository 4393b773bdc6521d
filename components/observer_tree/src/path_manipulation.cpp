#include "hox/observer_tree/path_manipulation.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

#include "hox/cpputil/log/logsystem.h"
#include "hox/observer_tree/key_components.h"
#include "hox/observer_tree/path_error.h"
#include "hox/observer_tree/unexpected_index.h"

namespace Hox::ObserverTree {

namespace {

constexpr char separator = KeyComponents::separator;

std::string naming(const std::string& path) {
    return "path = " + path + ". ";
}

bool isFunctionTreeOnly(std::string_view component) {
    return component.front() == '.' && component.back() == '.';
}

/// Returns the wildcard of one component, nothing for a literal; doubleStarSeen is shared by the
/// components of a path.
std::optional<WildCard> parseComponent(PathType type, std::string_view component,
                                       const std::string& path, bool& doubleStarSeen) {
    if (component.empty()) {
        throw PathError("Key must not contain // (two slashes in a row; " + naming(path), __FILE__,
                        __LINE__);
    }
    if (isFunctionTreeOnly(component)) {
        if (type != PathType::FunctionTreeAddress) {
            throw PathError("Only function tree addresses may contain .<something>. components; " +
                                naming(path),
                            __FILE__, __LINE__);
        }
        return WildCard::Star;
    }
    if (component.find('*') == std::string_view::npos) {
        return std::nullopt;
    }
    if (type != PathType::KeyPattern) {
        throw PathError("Only key_pattern's may contain *; " + naming(path), __FILE__, __LINE__);
    }
    if (component == "*") {
        return WildCard::Star;
    }
    if (component != "**") {
        throw PathError("More than two *'s in key_pattern component not allowed; " + naming(path),
                        __FILE__, __LINE__);
    }
    if (doubleStarSeen) {
        throw PathError("A key_pattern may at most contain one occurrence of **; " + naming(path),
                        __FILE__, __LINE__);
    }
    doubleStarSeen = true;
    return WildCard::DoubleStar;
}

/// Calls `visit` for each component with its text and, unless it is a literal, its wildcard.
template <typename Visitor>
void forEachComponent(PathType type, const std::string& path, Visitor visit) {
    if (path.empty()) {
        throw PathError("Path must not be empty", __FILE__, __LINE__);
    }
    if (path.front() != separator) {
        throw PathError("Initial character of path must be '/'; " + naming(path), __FILE__,
                        __LINE__);
    }
    if (path.size() > 1 && path.back() == separator) {
        throw PathError("Final character of path must not be '/' ; " + naming(path), __FILE__,
                        __LINE__);
    }
    bool doubleStarSeen = false;
    for (const auto component : KeyComponents(path)) {
        visit(component, parseComponent(type, component, path, doubleStarSeen));
    }
}

bool isDoubleStar(const PathComponent& component) {
    const auto* wildCard = std::get_if<WildCard>(&component);
    return wildCard != nullptr && *wildCard == WildCard::DoubleStar;
}

/// Decides the match if everything before the pattern's DoubleStar matches.
bool restMatches(std::size_t pathSize, const PathComponents& matcherComponents) {
    if (matcherComponents.size() - 1 > pathSize) {
        return false;
    }
    if (!std::holds_alternative<WildCard>(matcherComponents.back())) {
        throw UnexpectedIndex();
    }
    return true;
}

}  // namespace

PathManipulation::PathManipulation()
    : m_logger(Hox::Log::getLogsystem()->getLogger(_HALVOMACRO_loggerName())) {}

PathComponents PathManipulation::parsePath(PathType type, const std::string& path) const {
    PathComponents components;
    components.reserve(static_cast<std::size_t>(std::count(path.begin(), path.end(), separator)));
    forEachComponent(type, path,
                     [&components](std::string_view text, std::optional<WildCard> wildCard) {
                         if (wildCard) {
                             components.emplace_back(*wildCard);
                         } else {
                             components.emplace_back(std::in_place_type<std::string>, text);
                         }
                     });
    return components;
}

bool PathManipulation::matches(const PathComponents& pathComponents,
                               const PathComponents& matcherComponents) const {
    const auto stop =
        std::find_if(matcherComponents.begin(), matcherComponents.end(), isDoubleStar);
    auto pathLeftIter = pathComponents.begin();
    for (auto matcherLeftIter = matcherComponents.begin(); matcherLeftIter != stop;
         ++matcherLeftIter, ++pathLeftIter) {
        if (pathLeftIter == pathComponents.end()) {
            return false;
        }
        const auto* literal = std::get_if<std::string>(&*matcherLeftIter);
        if (literal == nullptr) {
            continue;
        }
        const auto* pathLiteral = std::get_if<std::string>(&*pathLeftIter);
        if (pathLiteral == nullptr) {
            throw UnexpectedIndex();
        }
        if (*pathLiteral != *literal) {
            return false;
        }
    }
    if (stop == matcherComponents.end()) {
        return pathLeftIter == pathComponents.end();
    }
    return restMatches(pathComponents.size(), matcherComponents);
}

bool PathManipulation::isKey(std::string_view text) const {
    if (text.empty() || text.front() != separator || text.find('*') != std::string_view::npos) {
        return false;
    }
    for (const auto component : KeyComponents(text)) {
        if (component.empty() || isFunctionTreeOnly(component)) {
            return false;
        }
    }
    return true;
}

bool PathManipulation::keyMatches(const std::string& key,
                                  const PathComponents& matcherComponents) const {
    const auto stop =
        std::find_if(matcherComponents.begin(), matcherComponents.end(), isDoubleStar);
    const bool isOpenEnded = stop != matcherComponents.end();
    auto matcher = matcherComponents.begin();
    std::size_t componentCount = 0;
    bool isMatch = true;
    // Always to the end: a malformed key is malformed wherever it differs.
    forEachComponent(PathType::Key, key, [&](std::string_view text, const auto& /*wildCard*/) {
        ++componentCount;
        if (matcher == stop) {
            isMatch = isMatch && isOpenEnded;
            return;
        }
        const auto* literal = std::get_if<std::string>(&*matcher);
        isMatch = isMatch && (literal == nullptr || *literal == text);
        ++matcher;
    });
    if (!isMatch || matcher != stop) {
        return false;
    }
    return !isOpenEnded || restMatches(componentCount, matcherComponents);
}

std::string PathManipulation::componentsToString(const PathComponents& components) const {
    std::string text;
    for (const auto& component : components) {
        if (&component != &components.front()) {
            text += separator;
        }
        if (const auto* literal = std::get_if<std::string>(&component)) {
            text += *literal;
        } else {
            text += isDoubleStar(component) ? "**" : "*";
        }
    }
    return text;
}

void PathManipulation::printComponents(const PathComponents& components,
                                       const std::string& prefix) const {
    for (const auto& component : components) {
        if (const auto* literal = std::get_if<std::string>(&component)) {
            std::printf("%scomponent = %s\n", prefix.c_str(), literal->c_str());
        } else {
            std::printf("%scomponent = %d\n", prefix.c_str(),
                        static_cast<int>(std::get<WildCard>(component)));
        }
    }
}

}  // namespace Hox::ObserverTree
