#include "hox/cpputil/timer/thread_cpu_time.h"

#include <ctime>

namespace Hox::CppUtil {

std::chrono::nanoseconds threadCpuTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace Hox::CppUtil
