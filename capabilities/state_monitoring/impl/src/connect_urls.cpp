#include "connect_urls.h"

namespace Hox::Capability::StateMonitoring {

namespace {

std::vector<std::string> split(const std::string& text, char delimiter) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (auto end = text.find(delimiter); end != std::string::npos;
         end = text.find(delimiter, start)) {
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    parts.push_back(text.substr(start));
    return parts;
}

}  // namespace

std::vector<std::string> parseConnectUrls(const std::string& text) {
    const auto colon = text.find(':');
    const auto ip = text.substr(0, colon);
    const auto ports = split(colon == std::string::npos ? text : text.substr(colon + 1), ',');
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
