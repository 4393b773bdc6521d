#pragma once

#include <cstdint>
#include <mutex>
#include <set>

namespace Hox::Service::Fixture {

/// Whether nobody holds the mutex. The calling thread may.
bool isFree(std::mutex& mutex);

/// The event descriptors that this process has open.
std::set<int> openEventDescriptors();

/// The present value of an event descriptor, which stays as it is.
std::uint64_t eventCount(int descriptor);

}  // namespace Hox::Service::Fixture
