#include "path_reason.h"

namespace Hox::Ctl {

std::string reasonOf(const ObserverTree::PathError& error) {
    std::string text = error.what();
    text.erase(text.rfind('('));
    const std::string prefix = "PathError: ";
    return text.compare(0, prefix.size(), prefix) == 0 ? text.substr(prefix.size()) : text;
}

}  // namespace Hox::Ctl
