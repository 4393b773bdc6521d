#pragma once

namespace Hox::Service {

/// Raises the process's soft limit of descriptors to its hard limit. The usual soft limit is for
/// programs that support at most 1,024 descriptors. Keeps the limit on failure.
void raiseDescriptorLimit();

}  // namespace Hox::Service
