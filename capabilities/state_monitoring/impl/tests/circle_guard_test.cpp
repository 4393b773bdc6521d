#include "circle_guard.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <utility>
#include <vector>

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

Api::StateNotification timedReport(const std::string& msg) {
    auto result = report(msg);
    result.mutable_timestamp()->set_seconds(1);
    return result;
}

TEST(CircleGuard, AcceptsAReportWithTimeAsOftenAsBeforeTheRestart) {
    CircleGuard guard(100);
    EXPECT_TRUE(guard.accepts(peer, timedReport("a")));
    EXPECT_TRUE(guard.accepts(peer, timedReport("a")));
    for (int round = 0; round < 3; ++round) {
        guard.restart(peer);
        EXPECT_TRUE(guard.accepts(peer, timedReport("a")));
        EXPECT_TRUE(guard.accepts(peer, timedReport("a")));
        EXPECT_FALSE(guard.accepts(peer, timedReport("a")));
        EXPECT_TRUE(guard.accepts(peer, timedReport("new in round " + std::to_string(round))));
    }
}

TEST(CircleGuard, AcceptsEachRepetitionWithoutTimeOnOneOfTwoRoads) {
    CircleGuard guard(100);
    EXPECT_TRUE(guard.accepts(otherPeer, report("a")));
    for (int i = 0; i < 10; ++i) {
        const bool isAcceptedFirst = guard.accepts(peer, report("a"));
        const bool isAcceptedLater = guard.accepts(otherPeer, report("a"));
        EXPECT_TRUE(isAcceptedFirst || isAcceptedLater) << i;
    }
}

TEST(CircleGuard, PrefersAnOriginToTheFirstOfTwoRoads) {
    CircleGuard guard(100);
    EXPECT_TRUE(guard.accepts(peer, report("a")));
    guard.count(otherPeer, report("a"));
    EXPECT_FALSE(guard.accepts(peer, report("a")));
}

TEST(CircleGuard, LimitsTheRateOfRepetitionsWithoutTime) {
    CircleGuard::Time now;
    CircleGuard guard(100'000, [&now] { return now; });
    const auto acceptedOf = [&](int count) {
        int accepted = 0;
        for (int i = 0; i < count; ++i) {
            accepted += guard.accepts(peer, report("a")) ? 1 : 0;
        }
        return accepted;
    };
    EXPECT_EQ(acceptedOf(40'000), 30'001);
    EXPECT_EQ(acceptedOf(1000), 0);
    EXPECT_TRUE(guard.accepts(peer, report("something else")));
    EXPECT_TRUE(guard.accepts(otherPeer, report("something else"))) << "each has its own rate";
    now += std::chrono::seconds(1);
    EXPECT_EQ(acceptedOf(1000), 100);
    now += std::chrono::hours(1);
    EXPECT_EQ(acceptedOf(40'000), 30'000);
}

/// Monitors with archives, which are restarted while reports are on their way.
class RestartedMonitors {
public:
    RestartedMonitors(Source size, std::uint32_t seed) : m_random(seed), m_monitors(size) {
        for (Source from = 0; from < size; ++from) {
            for (Source to = 0; to < size; ++to) {
                // A ring, and some more.
                if (to == (from + 1) % size || (to != from && m_random() % 3 == 0)) {
                    m_links[{from, to}];
                }
            }
        }
    }

    void create(Source monitor, const Api::StateNotification& report) {
        m_monitors[monitor].guard->count(CircleGuard::own, report);
        store(monitor, report);
    }

    void restartOne() {
        const auto monitor = static_cast<Source>(m_random() % m_monitors.size());
        m_monitors[monitor] = Monitor();
        for (auto& [ends, reports] : m_links) {
            if (ends.first == monitor) {
                reports.clear();
                m_monitors[ends.second].guard->restart(sourceOf(monitor));
            } else if (ends.second == monitor) {
                const auto& archive = m_monitors[ends.first].archive;
                reports.assign(archive.begin(), archive.end());
            }
        }
    }

    /// Passes on that many reports, from any link. False if none is on its way any more.
    bool passOn(int count) {
        for (int i = 0; i < count; ++i) {
            std::vector<decltype(m_links)::iterator> busy;
            for (auto link = m_links.begin(); link != m_links.end(); ++link) {
                if (!link->second.empty()) {
                    busy.push_back(link);
                }
            }
            if (busy.empty()) {
                return false;
            }
            auto& [ends, reports] = *busy[m_random() % busy.size()];
            const auto report = reports.front();
            reports.pop_front();
            if (m_monitors[ends.second].guard->accepts(sourceOf(ends.first), report)) {
                store(ends.second, report);
            }
        }
        return true;
    }

private:
    struct Monitor {
        std::unique_ptr<CircleGuard> guard = std::make_unique<CircleGuard>(16'000);
        std::vector<Api::StateNotification> archive;
    };

    static Source sourceOf(Source monitor) { return monitor + 1; }

    void store(Source monitor, const Api::StateNotification& report) {
        m_monitors[monitor].archive.push_back(report);
        for (auto& [ends, reports] : m_links) {
            if (ends.first == monitor) {
                reports.push_back(report);
            }
        }
    }

    std::mt19937 m_random;
    std::vector<Monitor> m_monitors;
    std::map<std::pair<Source, Source>, std::deque<Api::StateNotification>> m_links;
};

TEST(CircleGuard, EndsEveryCircleOfReportsWithTimeAfterRestarts) {
    for (std::uint32_t seed = 0; seed < 100; ++seed) {
        const Source size = 2 + seed % 3;
        RestartedMonitors monitors(size, seed);
        for (Source monitor = 0; monitor < size; ++monitor) {
            monitors.create(monitor, timedReport(std::to_string(monitor)));
        }
        for (int restart = 0; restart < 3; ++restart) {
            monitors.passOn(restart * 20);
            monitors.restartOne();
        }
        ASSERT_FALSE(monitors.passOn(50'000)) << "seed " << seed;
    }
}

}  // namespace
}  // namespace Hox::Capability::StateMonitoring
