#pragma once

#include <string>
#include <vector>

namespace Hox::Capability::StateMonitoring {

/// The addresses in a text of the form "ip:port1,port2,port3", in order. A text with fewer than two
/// ports is a single address, unchanged.
std::vector<std::string> parseConnectUrls(const std::string& text);

}  // namespace Hox::Capability::StateMonitoring
