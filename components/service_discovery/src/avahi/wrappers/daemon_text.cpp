#include "avahi/wrappers/daemon_text.h"

#include "hox/cpputil/string/string_utils.h"

namespace Hox::Service::Discovery::Avahi {

bool isDaemonText(const std::string& text) {
    return text.find('\0') == std::string::npos && CppUtil::str_is_utf8(text);
}

const char* orNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

}  // namespace Hox::Service::Discovery::Avahi
