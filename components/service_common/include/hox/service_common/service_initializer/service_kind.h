#pragma once

#include <string>

namespace Hox::Service {

/// How a published service is spoken to.
enum class ServiceKind : int { Grpc = 0 };

/// The text of a service kind in TXT records. Throws InvalidArgumentError for any other number.
/// Callable from any thread.
std::string serviceKindName(int kind);

}  // namespace Hox::Service
