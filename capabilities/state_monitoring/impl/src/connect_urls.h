#pragma once

#include <string>
#include <vector>

namespace Hox::Capability::StateMonitoring {

/// The addresses that a text of the form "ip:port1,port2,port3" names, in order. A text with fewer
/// than two ports is one address as it stands.
std::vector<std::string> parseConnectUrls(const std::string& text);

}  // namespace Hox::Capability::StateMonitoring
