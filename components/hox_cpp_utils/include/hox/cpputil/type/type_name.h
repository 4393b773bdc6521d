#pragma once

#include <string>
#include <string_view>

namespace Hox {

/// The fully qualified name of the type, with "::" separators.
template <typename _Get_TypeName>
const std::string getTemplateTypeName() {
    constexpr std::string_view marker = "_Get_TypeName =";
    const std::string_view signature = __PRETTY_FUNCTION__;
    const auto start = signature.find(marker) + marker.size() + 1;
    return std::string(signature.substr(start, signature.find_first_of(";]", start) - start));
}

}  // namespace Hox
