#include "hox/cpputil/type/demangle.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace Hox::CppUtil {

std::string demangle(const std::type_info& type) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    return status == 0 ? name.get() : type.name();
}

}  // namespace Hox::CppUtil
