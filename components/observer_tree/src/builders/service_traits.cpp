#include "hox/observer_tree/builders/service_traits.h"

#include <string_view>

namespace Hox::ObserverTree {

std::string serviceNameOfClass(std::string className) {
    constexpr std::string_view separator = "::";
    className.erase(className.rfind(separator));
    for (auto at = className.find(separator); at != std::string::npos;
         at = className.find(separator, at)) {
        className.replace(at, separator.size(), ".");
    }
    return className;
}

}  // namespace Hox::ObserverTree
