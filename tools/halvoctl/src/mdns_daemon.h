#pragma once

#include <chrono>
#include <string>

namespace Hox::Ctl {

/// Why the mDNS daemon of this machine does not answer within this time; empty if it does.
std::string whyNoMdns(std::chrono::milliseconds limit);

}  // namespace Hox::Ctl
