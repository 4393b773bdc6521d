#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "hox/cpputil/regex/bounded_regex.h"

namespace Hox::Capability::StateMonitoring {

/// Selects notifications by a regular expression search in their type. One object serves one
/// request.
class TypeFilter {
public:
    /// Processor time after which a request checks no further type.
    static constexpr std::chrono::milliseconds maxTime{100};

    /// An empty expression accepts every type. The expression is compiled for the first type, so a
    /// malformed one is reported only then. Keeps a reference to the expression.
    explicit TypeFilter(const std::string& expression) : m_expression(expression) {}

    /// Whether the filter accepts the type. The text must outlive this object. Throws
    /// std::regex_error for a malformed expression, and InvalidArgumentError for an expression or a
    /// type that is too long, for a match that takes too long, and if the request has taken too
    /// long in total.
    bool accepts(std::string_view type);

private:
    bool search(std::string_view type);

    const std::string& m_expression;
    std::optional<Hox::CppUtil::BoundedRegex> m_regex;
    std::chrono::nanoseconds m_deadline{};
    std::unordered_map<std::string_view, bool> m_verdicts;
    /// The last type, because equal types often follow each other; null before the first one.
    const std::pair<const std::string_view, bool>* m_last = nullptr;
};

}  // namespace Hox::Capability::StateMonitoring
