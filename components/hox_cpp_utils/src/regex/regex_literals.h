#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "regex/regex_syntax.h"

namespace Hox::CppUtil {

/// An expression that is a choice of plain texts, each with or without ".*" behind it. Such an
/// expression is matched by comparing texts.
class RegexLiterals {
public:
    /// Empty for an expression of another kind.
    static std::optional<RegexLiterals> recognize(const RegexSyntax& syntax);

    /// Whether the whole subject matches.
    bool match(std::string_view subject);

    /// Texts compared and bytes looked at by all matches so far.
    std::uint64_t steps() const { return m_steps; }

private:
    struct Alternative {
        std::string text;
        bool isOpen = false;  // followed by ".*"
    };

    static std::optional<Alternative> recognizeAlternative(const RegexSyntax& syntax,
                                                           const RegexSyntax::Node& node);

    std::vector<Alternative> m_alternatives;
    std::uint64_t m_steps = 0;
};

}  // namespace Hox::CppUtil
