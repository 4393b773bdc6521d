#pragma once

#include <chrono>
#include <set>
#include <string>

namespace Hox::Ctl {

/// Why the mDNS daemon of this machine does not answer within this time; empty if it does.
std::string whyNoMdns(std::chrono::milliseconds limit);

/// The ids of the services on the network that have published the capability; none without a daemon
/// that answers within the limit.
std::set<std::string> servicesWith(const std::string& capability, std::chrono::milliseconds limit);

}  // namespace Hox::Ctl
