#include "connect_urls.h"

#include "hox/cpputil/string/string_utils.h"

namespace Hox::Capability::StateMonitoring {

std::vector<std::string> parseConnectUrls(const std::string& text) {
    const auto colon = text.find(':');
    const auto ip = text.substr(0, colon);
    const auto ports =
        Hox::CppUtil::str_split(colon == std::string::npos ? text : text.substr(colon + 1), ',');
    if (ports.size() < 2) {
        return {text};
    }
    std::vector<std::string> urls;
    urls.reserve(ports.size());
    for (const auto& port : ports) {
        urls.push_back(ip + ":" + port);
    }
    return urls;
}

}  // namespace Hox::Capability::StateMonitoring
