#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "hox/cpputil/regex/bounded_regex.h"

namespace Hox::Capability::StateMonitoring {

/// Selects notifications by a regular expression that is searched for in their type. One object
/// serves one request.
class TypeFilter {
public:
    /// Processor time after which a request judges no further type.
    static constexpr std::chrono::milliseconds maxTime{100};

    /// An empty expression accepts every type. The expression is compiled when the first type
    /// comes, so that a malformed one shows only then. Keeps a reference to it.
    explicit TypeFilter(const std::string& expression) : m_expression(expression) {}

    /// Whether the type is wanted. The text outlives this object. Throws std::regex_error for a
    /// malformed expression, InvalidArgumentError for an expression or a type that is too long or
    /// takes too long together, and when the request has taken too long in all.
    bool accepts(std::string_view type);

private:
    bool search(std::string_view type);

    const std::string& m_expression;
    std::optional<Hox::CppUtil::BoundedRegex> m_regex;
    std::chrono::nanoseconds m_deadline{};
    std::unordered_map<std::string_view, bool> m_verdicts;
    /// The type that came last, as types come in rows; null before the first one.
    const std::pair<const std::string_view, bool>* m_last = nullptr;
};

}  // namespace Hox::Capability::StateMonitoring
