#pragma once

#include <string>

namespace Hox::Service {

/// Whom a published service is meant for.
enum class ServiceVisibility : int { Private = 0, Public = 1 };

/// The text of a visibility in TXT records. Throws InvalidArgumentError for any other number, with
/// the text of an unknown service kind. Callable from any thread.
std::string visibilityName(int visibility);

}  // namespace Hox::Service
