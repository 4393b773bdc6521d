#pragma once

namespace Hox::Service {

/// Lets the process have as many descriptors as its surroundings allow, where the usual limit is
/// made for programs that know no more than 1,024 of them. Keeps the limit where that fails.
void raiseDescriptorLimit();

}  // namespace Hox::Service
