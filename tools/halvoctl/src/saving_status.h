#pragma once

#include "connection.h"
#include "output.pb.h"

namespace Hox::Ctl {

/// Whether the configurations of all services that have reported it are saved, and since when.
/// Throws CtlError if a call fails.
SavingStatusList savingStatus(const Connection& connection);

/// Whether all of them are saved.
bool isAllSaved(const SavingStatusList& list);

}  // namespace Hox::Ctl
