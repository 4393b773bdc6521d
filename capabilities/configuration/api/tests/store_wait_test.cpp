#include "store_wait.h"

#include <gmock/gmock.h>

#include "hox/cpputil/log/logsystem.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"

namespace Hox::Capability::Configuration {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class StoreWaitTest : public ::testing::Test {
protected:
    const Testing::LogCapture m_log{"StoreWaitTest"};
    bool m_isEnding = false;
    StoreWait m_wait{Hox::Log::getLogsystem()->getLogger("StoreWaitTest"), "the store",
                     [this] { return m_isEnding; }};
};

TEST_F(StoreWaitTest, EndsWithTheProcess) {
    EXPECT_FALSE(m_wait.mustEnd());
    m_isEnding = true;
    EXPECT_TRUE(m_wait.mustEnd());
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(StoreWaitTest, SaysOnceAfterThreeSecondsWhatItWaitsFor) {
    ASSERT_TRUE(Testing::waitUntil([this] {
        EXPECT_FALSE(m_wait.mustEnd());
        return !m_log.texts().empty();
    }));
    EXPECT_GE(m_wait.duration(), std::chrono::seconds(3));
    EXPECT_FALSE(m_wait.mustEnd());
    EXPECT_THAT(m_log.textsAt(spdlog::level::warn), ElementsAre("Waiting for the store"));
}

}  // namespace
}  // namespace Hox::Capability::Configuration
