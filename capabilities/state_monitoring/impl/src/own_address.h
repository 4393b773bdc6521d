#pragma once

#include <string>

namespace Hox::Capability::StateMonitoring {

/// Whether a connect URL leads to a server on this port of this machine, judging by its text:
/// addresses of the machine's interfaces, its host name and "localhost" are known. "inprocess"
/// always does. No name is looked up on the network.
bool isOwnAddress(const std::string& url, const std::string& ownPort);

}  // namespace Hox::Capability::StateMonitoring
