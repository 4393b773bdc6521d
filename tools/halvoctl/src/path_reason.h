#pragma once

#include <string>

#include "hox/observer_tree/path_error.h"

namespace Hox::Ctl {

/// The text of the error without its class and the place in the source.
std::string reasonOf(const ObserverTree::PathError& error);

}  // namespace Hox::Ctl
