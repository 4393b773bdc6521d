#include "circle_guard.h"

#include <gtest/gtest.h>

#include <deque>
#include <map>

#include "state_mon_fixture.h"

namespace Hox::Capability::StateMonitoring {
namespace {

using Fixture::notification;
using Source = CircleGuard::Source;

constexpr Source peer = 1;
constexpr Source otherPeer = 2;

Api::StateNotification report(const std::string& msg) {
    auto result = notification("node", "type", "source");
    result.set_msg(msg);
    return result;
}

TEST(CircleGuard, AcceptsWhateverOnlyOneSourceSends) {
    CircleGuard guard(10);
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(guard.accepts(peer, report("same")));
        EXPECT_TRUE(guard.accepts(otherPeer, report("of the other one")));
        guard.count(CircleGuard::own, report("own"));
    }
}

TEST(CircleGuard, AcceptsOneCopyOfEachOwnReport) {
    CircleGuard guard(10);
    guard.count(CircleGuard::own, report("a"));
    guard.count(CircleGuard::own, report("a"));
    EXPECT_TRUE(guard.accepts(peer, report("a")));
    EXPECT_TRUE(guard.accepts(peer, report("a")));
    EXPECT_FALSE(guard.accepts(peer, report("a")));
    guard.count(CircleGuard::own, report("a"));
    EXPECT_TRUE(guard.accepts(peer, report("a")));
    EXPECT_FALSE(guard.accepts(peer, report("a")));
}

TEST(CircleGuard, AcceptsWhatArrivesOnTwoRoads) {
    CircleGuard guard(100);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(guard.accepts(peer, report(std::to_string(i))));
        EXPECT_TRUE(guard.accepts(otherPeer, report(std::to_string(i))));
    }
}

TEST(CircleGuard, ToldApartByEveryField) {
    CircleGuard guard(100);
    guard.count(CircleGuard::own, report("a"));
    EXPECT_TRUE(guard.accepts(peer, report("a")));
    ASSERT_FALSE(guard.accepts(peer, report("a")));
    auto later = report("a");
    later.mutable_timestamp()->set_nanos(1);
    EXPECT_TRUE(guard.accepts(peer, later));
    auto worse = report("a");
    worse.set_severity(Api::StateSeverity::ERROR);
    EXPECT_TRUE(guard.accepts(peer, worse));
}

TEST(CircleGuard, AcceptsAllOnceMoreAfterARestart) {
    CircleGuard guard(100);
    guard.count(CircleGuard::own, report("a"));
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(guard.accepts(peer, report("a")));
        EXPECT_FALSE(guard.accepts(peer, report("a")));
        EXPECT_TRUE(guard.accepts(otherPeer, report("a")));
        guard.restart(peer);
        guard.restart(otherPeer);
    }
}

TEST(CircleGuard, DoesNotTakeFormerRoundsOfAPeerForAnotherSource) {
    CircleGuard guard(100);
    EXPECT_TRUE(guard.accepts(peer, report("a")));
    guard.restart(peer);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(guard.accepts(peer, report("a")));
    }
}

TEST(CircleGuard, ForgetsTheOldest) {
    CircleGuard guard(2);
    guard.count(CircleGuard::own, report("a"));
    EXPECT_TRUE(guard.accepts(peer, report("a")));
    EXPECT_FALSE(guard.accepts(peer, report("a")));
    guard.count(CircleGuard::own, report("b"));
    EXPECT_TRUE(guard.accepts(peer, report("a"))) << "the own one is forgotten";
    EXPECT_TRUE(guard.accepts(peer, report("a")));
}

/// Monitors that observe each other, without a network: what one stores arrives at its observers.
class Monitors {
public:
    /// Observers of each monitor, by number from 1 on.
    explicit Monitors(std::map<Source, std::vector<Source>> observers)
        : m_observers(std::move(observers)) {}

    /// Creates a report at a monitor and passes it on until it rests. Returns the number of stored
    /// copies, or -1 if there is no end.
    int stored(Source monitor, const Api::StateNotification& report) {
        constexpr int enough = 10'000;
        int copies = 0;
        m_way.emplace_back(CircleGuard::own, monitor);
        while (!m_way.empty()) {
            const auto [from, to] = m_way.front();
            m_way.pop_front();
            if (from == CircleGuard::own) {
                guardOf(to).count(from, report);
            } else if (!guardOf(to).accepts(from, report)) {
                continue;
            }
            if (++copies == enough) {
                return -1;
            }
            for (const auto observer : m_observers[to]) {
                m_way.emplace_back(to, observer);
            }
        }
        return copies;
    }

private:
    CircleGuard& guardOf(Source monitor) {
        return m_guards.try_emplace(monitor, 16'000).first->second;
    }

    std::map<Source, std::vector<Source>> m_observers;
    std::map<Source, CircleGuard> m_guards;
    std::deque<std::pair<Source, Source>> m_way;  // from and to
};

TEST(CircleGuard, EndsEveryCircle) {
    const std::map<std::string, std::pair<std::map<Source, std::vector<Source>>, int>> cases = {
        {"chain", {{{1, {2}}, {2, {3}}}, 3}},
        {"two", {{{1, {2}}, {2, {1}}}, 4}},
        {"ring of three", {{{1, {2}}, {2, {3}}, {3, {1}}}, 6}},
        {"a leaf at two", {{{1, {2}}, {2, {3}}, {3, {2}}}, 5}},
        {"two roads", {{{1, {2, 3}}, {2, {4}}, {3, {4}}}, 5}},
    };
    for (const auto& [name, expected] : cases) {
        Monitors monitors(expected.first);
        EXPECT_EQ(monitors.stored(1, report("a")), expected.second) << name;
    }
}

TEST(CircleGuard, EndsWhereAllObserveAll) {
    for (Source size = 3; size <= 6; ++size) {
        std::map<Source, std::vector<Source>> observers;
        for (Source monitor = 1; monitor <= size; ++monitor) {
            for (Source observer = 1; observer <= size; ++observer) {
                if (observer != monitor) {
                    observers[monitor].push_back(observer);
                }
            }
        }
        Monitors monitors(observers);
        for (int i = 0; i < 3; ++i) {
            const auto copies = monitors.stored(1, report(std::to_string(i)));
            EXPECT_GT(copies, 0) << size;
            EXPECT_LT(copies, 300) << size;
        }
    }
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
