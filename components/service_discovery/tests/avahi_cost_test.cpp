#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <string>

#include "discovery_fixture.h"
#include "hox/testing/wait_until.h"

// What the thousandth repetition costs: nothing.

namespace Hox::Service::Discovery::Avahi {
namespace {

using Hox::Testing::waitUntil;
using ::testing::IsEmpty;

std::ptrdiff_t entries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder),
                         std::filesystem::directory_iterator());
}

struct Cost {
    std::ptrdiff_t descriptors = entries("/proc/self/fd");
    std::ptrdiff_t threads = entries("/proc/self/task");
    std::size_t bytes = mallinfo2().uordblks;
};

class AvahiCostTest : public SharedDaemonTest {
protected:
    /// Repeats the work often, and once more as often: the second time costs nothing except for
    /// less than these bytes for each.
    template <typename Work>
    static void expectNoCost(int times, std::size_t bytesEach, Work work) {
        const auto repeat = [&] {
            for (int i = 0; i < times; ++i) {
                work();
            }
        };
        repeat();
        const Cost before;
        repeat();
        // What the event loop has not read yet takes room for a moment.
        const auto limit = before.bytes + static_cast<std::size_t>(times) * bytesEach;
        EXPECT_TRUE(waitUntil([&] { return Cost().bytes < limit; }))
            << Cost().bytes << " of " << limit;
        const Cost after;
        EXPECT_EQ(after.descriptors, before.descriptors);
        EXPECT_EQ(after.threads, before.threads);
    }

    /// Far less than a request takes; the bus library keeps some messages for later.
    static constexpr std::size_t little = 64;
};

TEST_F(AvahiCostTest, AThousandPublicationsCostNothing) {
    auto one = service("cost");
    one.txtRecords = {{"a", "b"}};
    one.subtypes = {"cost"};
    expectNoCost(1000, little, [&] { m_client->publisher().publish(one); });
    // The daemon has forgotten them as well: it allows each client a thousand.
    EXPECT_EQ(outcome(*m_client, one), Published);
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(AvahiCostTest, AThousandSearchesCostNothing) {
    const NetworkServiceType type("nobody");
    expectNoCost(1000, little, [&] {
        m_client->resolver().browse(type, -1);
        m_client->resolver().resolve("nobody", type, -1);
    });
    EXPECT_THAT(m_log.textsAt(spdlog::level::err), IsEmpty());
}

TEST_F(AvahiCostTest, RefusedPublicationsCostNothing) {
    auto refused = service("cost");
    refused.name = std::string(64, 'n');
    expectNoCost(200, little, [&] {
        m_log.clear();
        EXPECT_EQ(outcome(*m_client, refused), PublishFailure);
    });
}

TEST_F(AvahiCostTest, StartsAndStopsCostNothing) {
    AvahiServiceDiscoveryClient client;
    // Each thread takes what the allocator keeps for it; a lost connection would be far more.
    expectNoCost(10, 1024, [&] {
        m_log.clear();
        client.start();
        const auto handle = client.publisher().publish(service("cost"), [](auto&&...) {});
        client.stop();
    });
}

}  // namespace
}  // namespace Hox::Service::Discovery::Avahi
