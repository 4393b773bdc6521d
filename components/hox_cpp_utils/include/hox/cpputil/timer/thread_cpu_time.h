#pragma once

#include <chrono>

namespace Hox::CppUtil {

/// The processor time that the calling thread has used so far. Other work on the machine does not
/// count, so a limit on it also holds under load, where a limit on wall-clock time would not.
std::chrono::nanoseconds threadCpuTime();

}  // namespace Hox::CppUtil
