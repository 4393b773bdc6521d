#include "hox/observer_tree/grpc/standby_poller.h"

#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "grpc/system_calls.h"
#include "hox/testing/wait_until.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {
namespace {

using Hox::Testing::waitUntil;
using Wait = StandbyPoller::Wait;

/// The number of threads of this process that are reading from the network now.
long readingThreads() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::count_if(begin(threads), end(threads), [](const auto& thread) {
        return isReadOfTheNetwork(systemCallOf(std::stoi(thread.path().filename())));
    });
}

/// The number of voluntary context switches of each other thread of this process.
std::vector<std::string> switches() {
    std::vector<std::string> counts;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(thread.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (thread.path().filename() != std::to_string(::gettid()) &&
                line.rfind("voluntary_ctxt_switches", 0) == 0) {
                counts.push_back(line);
            }
        }
    }
    return counts;
}

/// Whether all other threads come to rest for a while: shorter than the 100 ms after which
/// ThreadSanitizer's own thread wakes up.
bool comesToRest() {
    auto before = switches();
    auto since = std::chrono::steady_clock::now();
    return waitUntil([&] {
        auto now = switches();
        if (now != before) {
            before = std::move(now);
            since = std::chrono::steady_clock::now();
        }
        return std::chrono::steady_clock::now() - since > 8 * StandbyPoller::pollInterval;
    });
}

/// A poller with its server.
class StandbyPollerTest : public ::testing::Test {
protected:
    StandbyPollerTest() {
        grpc::ServerBuilder builder;
        builder.RegisterService(&m_service);
        m_poller.emplace(builder.AddCompletionQueue(true));
        m_server = builder.BuildAndStart();
        EXPECT_TRUE(comesToRest());
        m_others = readingThreads();
    }
    ~StandbyPollerTest() override {
        m_server->Shutdown();
        m_poller.reset();
    }

    /// Whether the poller reads.
    bool isReading() const { return readingThreads() > m_others; }

    TestService::Service m_service;
    std::optional<StandbyPoller> m_poller;
    std::unique_ptr<grpc::Server> m_server;
    long m_others = 0;  // threads of the library that read their own descriptors
};

TEST_F(StandbyPollerTest, DoesNothingBeforeItsStart) {
    EXPECT_FALSE(isReading());
}

TEST_F(StandbyPollerTest, ReadsAsLongAsNobodyWaits) {
    m_poller->start();
    EXPECT_TRUE(waitUntil([this] { return isReading(); }));
}

TEST_F(StandbyPollerTest, SleepsWhileSomebodyWaitsAndTakesOverAfterwards) {
    m_poller->start();
    for (int round = 0; round < 3; ++round) {
        std::optional<Wait> first(std::in_place, &*m_poller);
        std::optional<Wait> second(std::in_place, &*m_poller);
        EXPECT_TRUE(comesToRest());
        EXPECT_FALSE(isReading());
        first.reset();
        EXPECT_TRUE(comesToRest()) << "the second one still waits";
        EXPECT_FALSE(isReading());
        second.reset();
        EXPECT_TRUE(waitUntil([this] { return isReading(); }));
    }
}

TEST_F(StandbyPollerTest, SleepsAgainAfterShortAbsences) {
    m_poller->start();
    for (int round = 0; round < 1000; ++round) {
        const Wait wait(&*m_poller);
    }
    const Wait wait(&*m_poller);
    EXPECT_TRUE(comesToRest());
    EXPECT_FALSE(isReading());
}

TEST_F(StandbyPollerTest, ManyThreadsComeAndGo) {
    m_poller->start();
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([this] {
            for (int round = 0; round < 20000; ++round) {
                const Wait wait(&*m_poller);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(waitUntil([this] { return isReading(); }));
}

TEST_F(StandbyPollerTest, NobodyNeedsToStandIn) {
    const Wait wait(nullptr);
}

}  // namespace
}  // namespace Hox::ObserverTree::Test
