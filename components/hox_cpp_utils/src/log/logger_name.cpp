#include "hox/cpputil/log/logger_name.h"

namespace Hox::Log {

std::string loggerName(const std::string& function, const std::string& file) {
    std::string name = file.substr(file.rfind('/') + 1);
    if (!function.empty()) {
        name += "::" + function;
    }
    return name.substr(0, name.find("::<lambda()>"));
}

}  // namespace Hox::Log
