#pragma once

#include <chrono>

namespace Hox::CppUtil {

/// The processor time that the calling thread has used so far. Other work on the machine does not
/// count, so it bounds work where a clock on the wall would fail under load.
std::chrono::nanoseconds threadCpuTime();

}  // namespace Hox::CppUtil
