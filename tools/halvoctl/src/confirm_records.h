#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "confirm_record.h"
#include "confirmation.pb.h"
#include "surroundings.h"

namespace Hox::Ctl {

/// A change that is neither confirmed nor reverted.
struct PendingConfirmation {
    std::string id;        ///< What names it to the user.
    std::string folder;    ///< Where its record is.
    Confirmation content;  ///< The record.
};

/// The XDG_STATE_HOME with which any process of this user has the same records, whatever its other
/// variables are: empty for root who has set none. Throws CtlError if there is no such place.
std::string stateHome(const Surroundings& surroundings);

/// The folder of all records: halvo/confirm in XDG_STATE_HOME, otherwise for root
/// /var/lib/halvo-tools/confirm, for others ~/.local/state/halvo/confirm. It need not exist. Throws
/// CtlError if there is no such place.
std::string confirmFolder(const Surroundings& surroundings);

/// The complete records in that folder, the one that reverts first at first. Throws CtlError if one
/// cannot be read.
std::vector<PendingConfirmation> pendingConfirmations(const Surroundings& surroundings);

/// The record with this id; without one that of the only change of a configuration. Throws CtlError
/// if there is none, or more than one, and if another process works on it longer than this time.
std::unique_ptr<ConfirmRecord> openPending(const Surroundings& surroundings, const std::string& id,
                                           std::chrono::milliseconds time);

}  // namespace Hox::Ctl
