#pragma once

#include <cstdint>
#include <mutex>
#include <set>

namespace Hox::Service::Fixture {

/// Whether no thread holds the mutex. The calling thread may hold it.
bool isFree(std::mutex& mutex);

/// The event descriptors that this process has open.
std::set<int> openEventDescriptors();

/// The current value of an event descriptor; does not change it.
std::uint64_t eventCount(int descriptor);

}  // namespace Hox::Service::Fixture
