// The main function of every test program. CTest kills a hanging program without a message; this
// function ends it a little earlier and names the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

/// Ends the process. Reading the current test takes a lock of GoogleTest, which no thread holds
/// while a test hangs.
[[noreturn]] void onAlarm(int /*signal*/) {
    const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
    for (const char* const text : {"Out of time in ", test ? test->test_suite_name() : "no test",
                                   ".", test ? test->name() : "", "\n"}) {
        static_cast<void>(!write(STDERR_FILENO, text, std::strlen(text)));
    }
    std::abort();
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    std::signal(SIGALRM, onAlarm);
    if (const char* const seconds = std::getenv("HALVO_TEST_SECONDS")) {
        alarm(static_cast<unsigned>(std::strtoul(seconds, nullptr, 10)));
    }
    return RUN_ALL_TESTS();
}
