#pragma once

#include <string>

#include "hox/archive/error/archive_error.h"
#include "hox/observer_tree/path_error.h"

namespace Hox::Ctl {

/// The text of the error without its class and the place in the source.
///@{
std::string reasonOf(const ObserverTree::PathError& error);
std::string reasonOf(const Archive::ArchiveError& error);
///@}

}  // namespace Hox::Ctl
