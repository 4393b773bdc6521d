#pragma once

#include <string>

namespace Hox::Service {

/// Whether an address of a service leads to a server on this port of this machine, judging by its
/// text: addresses of the machine's interfaces, its host name and "localhost" are known.
/// "inprocess" always does. No name is looked up on the network.
bool isOwnAddress(const std::string& address, const std::string& ownPort);

}  // namespace Hox::Service
