#include "hox/cpputil/timer/thread_cpu_time.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace Hox::CppUtil {
namespace {

using namespace std::chrono_literals;

TEST(ThreadCpuTime, GrowsWithTheWorkOfItsThread) {
    const auto start = threadCpuTime();
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (threadCpuTime() < start + 2ms) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    }
}

TEST(ThreadCpuTime, IsEachThreadsOwn) {
    const auto start = threadCpuTime();
    std::thread worker([] {
        const auto workerStart = threadCpuTime();
        EXPECT_LT(workerStart, 10ms);
        while (threadCpuTime() < workerStart + 50ms) {
        }
    });
    worker.join();
    EXPECT_LT(threadCpuTime(), start + 50ms);
}

}  // namespace
}  // namespace Hox::CppUtil
