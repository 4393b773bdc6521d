#pragma once

#include <string>
#include <typeinfo>

namespace Hox::CppUtil {

/// The readable name of the type, or its raw name if it cannot be demangled.
std::string demangle(const std::type_info& type);

}  // namespace Hox::CppUtil
