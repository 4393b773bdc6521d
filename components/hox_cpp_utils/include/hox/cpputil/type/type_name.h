#pragma once

#include <string>
#include <string_view>

namespace HoxTypeName {

/// The compiler's text of this function's signature, with the type spelled out. It is outside of
/// Hox because the compiler omits a namespace that the function and the type share.
template <typename _Get_TypeName>
constexpr std::string_view signature() {
    return __PRETTY_FUNCTION__;
}

}  // namespace HoxTypeName

namespace Hox {

/// The fully qualified name of the type, with "::" separators.
template <typename _Get_TypeName>
const std::string getTemplateTypeName() {
    constexpr std::string_view marker = "_Get_TypeName =";
    constexpr std::string_view text = HoxTypeName::signature<_Get_TypeName>();
    constexpr auto start = text.find(marker) + marker.size() + 1;
    return std::string(text.substr(start, text.find_first_of(";]", start) - start));
}

}  // namespace Hox
