#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Hox::Ctl {

/// A change that reverts by itself unless it is confirmed.
struct PendingConfirmation {
    std::string id;
    std::string folder;  ///< Where its record is.
};

/// The changes that wait for their confirmation, by id. The environment gives the value of a
/// variable, empty if it is not set.
std::vector<PendingConfirmation> pendingConfirmations(
    const std::function<std::string(const std::string&)>& environment);

}  // namespace Hox::Ctl
