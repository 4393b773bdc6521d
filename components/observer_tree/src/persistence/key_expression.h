#pragma once

#include <string>

#include "hox/cpputil/regex/bounded_regex.h"

namespace Hox::ObserverTree {

/// A regular expression that selects keys as a whole. Has no lock; one thread at a time.
class KeyExpression {
public:
    /// Throws as the constructor of BoundedRegex does.
    explicit KeyExpression(const std::string& expression) : m_expression(expression) {}

    /// A key that is too long for an expression is not selected. Throws as BoundedRegex::matches.
    bool matches(const std::string& key) {
        return key.size() <= Hox::CppUtil::BoundedRegex::maxSubjectSize &&
               m_expression.matches(key);
    }

private:
    Hox::CppUtil::BoundedRegex m_expression;
};

}  // namespace Hox::ObserverTree
