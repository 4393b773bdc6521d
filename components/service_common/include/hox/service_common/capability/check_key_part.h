#pragma once

#include <string>

#include "hox/observer_tree/status.h"

namespace Hox::Service {

/// Whether a text from outside, such as a name that a client chooses, can be a part of a key of the
/// data tree, after a slash. It may have slashes between its components. Otherwise the status is
/// INVALID_ARGUMENT with a text that quotes the part; a handler that used the part would end the
/// process. Callable from any thread.
ObserverTree::Status checkKeyPart(const std::string& part);

}  // namespace Hox::Service
