#include "discovery/daemon_wait_notice.h"

#include <gmock/gmock.h>

#include "hox/cpputil/log/logsystem.h"
#include "hox/testing/log_capture.h"
#include "hox/testing/wait_until.h"

namespace Hox::Service {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::shared_ptr<spdlog::logger> logger() {
    return Log::getLogsystem()->getLogger("ServiceInitializer");
}

TEST(DaemonWaitNotice, TellsALongWaitOnceAndItsEnd) {
    const Testing::LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    DaemonWaitNotice notice(logger());
    ASSERT_TRUE(Testing::waitUntil([&] { return !log.records().empty(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_THAT(log.textsAt(spdlog::level::warn), ElementsAre("Waiting for the mDNS daemon"));
    notice.daemonAppeared();
    EXPECT_THAT(log.texts(),
                ElementsAre("Waiting for the mDNS daemon", "The mDNS daemon has appeared"));
    EXPECT_THAT(log.textsAt(spdlog::level::info), ElementsAre("The mDNS daemon has appeared"));
}

TEST(DaemonWaitNotice, SaysNothingOfAShortWait) {
    const Testing::LogCapture log;
    DaemonWaitNotice(logger()).daemonAppeared();
    { const DaemonWaitNotice ended(logger()); }
    EXPECT_THAT(log.texts(), IsEmpty());
}

}  // namespace
}  // namespace Hox::Service
